// All the commands' controls. A command that was given is pending until the server tells that the
// telemetry proves it, and offers "Send again" when it does not.
import { askForWord } from "./ask.js";
import { buildControl, kTriggers } from "./control.js";
import { byId, element, setText } from "./dom.js";

const kOwnTimeout_ms = 6000; // the server answers earlier; later it is gone

// Where a control stands; what is not named here comes last.
const kGroups = [
  ["Light", ["video_mode", "shutter", "iso", "ev"]],
  ["Colour", ["wb", "color", "histogram"]],
  [
    "Format",
    ["camera", "video_resolution", "video_aspect", "shotmode", "video_std", "antiflicker"],
  ],
];
const kLastGroup = "Camera";

const kStateTexts = {
  pending: "waiting for the camera",
  sent: "sent",
  done: "done",
};
const kMayBeSentAgain = ["failed", "refused"];

function layOut(controls) {
  const named = new Set([...kTriggers, ...kGroups.flatMap(([, cmds]) => cmds)]);
  const others = [...controls.keys()].filter((cmd) => !named.has(cmd));
  const boxesOf = (cmds) =>
    cmds.filter((cmd) => controls.has(cmd)).map((cmd) => controls.get(cmd).box);
  const groups = [...kGroups, [kLastGroup, others]]
    .map(([title, cmds]) => [title, boxesOf(cmds)])
    .filter(([, boxes]) => boxes.length > 0)
    .map(([title, boxes]) => element("fieldset", {}, element("legend", {}, title), ...boxes));
  byId("control-groups").replaceChildren(...groups);
  byId("trigger").replaceChildren(...boxesOf(kTriggers));
}

// The message of a command; null when the user, who was asked, thought better of it.
async function messageOf({ cmd, label, ask }, word, value) {
  const message = {
    cmd,
    ...(word && { param: word.word }),
    ...(value !== undefined && { value }),
  };
  const wanted = word?.ask || ask;
  if (wanted === "") {
    return message;
  }
  const typed = await askForWord(word ? `${label}: ${word.word}` : label, wanted);
  return typed === null ? null : { ...message, confirm: typed };
}

export class Controls {
  #send; // (message) gives a command to the server and returns whether it went out
  #announce; // (text) says it to a screen reader
  #controls = new Map(); // by cmd
  #pending = new Map(); // controls by the id of their command
  #next_id = 1;
  #is_connected = false;
  #view_only = false;
  #allowed = new Map();
  #latest = null; // telemetry

  constructor(send, announce) {
    this.#send = send;
    this.#announce = announce;
  }

  setCommands(commands, view_only) {
    this.#view_only = view_only;
    this.#controls.forEach((control) => clearTimeout(control.timer));
    this.#pending.clear();
    this.#controls = new Map(commands.map((command) => [command.cmd, this.#build(command)]));
    layOut(this.#controls);
    byId("controls-note").hidden = !view_only;
    setText(byId("controls-note"), "This console only shows: it was started to take no commands.");
    this.#controls.forEach((control) => this.#renew(control));
    this.#renewDisabled();
  }

  show(telemetry) {
    this.#latest = telemetry;
    // One with a command under way goes on showing what was asked for.
    this.#controls.forEach(
      (control) => control.box.dataset.state !== "pending" && this.#renew(control),
    );
  }

  setAllowed(cmds) {
    this.#allowed = cmds;
    this.#renewDisabled();
  }

  setConnected(is_connected) {
    this.#is_connected = is_connected;
    if (!is_connected) {
      const why = "the connection was lost";
      [...this.#pending.keys()].forEach((id) => this.take({ id, state: "failed", why }));
    }
    this.#renewDisabled();
  }

  // As if the control's button was pressed.
  press(cmd) {
    const control = this.#controls.get(cmd);
    if (control?.press && !control.buttons[0].disabled) {
      control.press();
    }
  }

  // How a command fares, as the server says.
  take({ id, state, why }) {
    const control = this.#pending.get(id);
    if (control === undefined) {
      return;
    }
    this.#setState(control, state, why);
    if (state !== "pending") {
      this.#pending.delete(id);
    }
  }

  #build(command) {
    const control = buildControl(command, (...wish) => this.#give(...wish));
    control.again.addEventListener("click", () => this.#transmit(control, control.sent));
    return control;
  }

  async #give(control, word, value) {
    const message = await messageOf(control.command, word, value);
    if (message === null) {
      this.#renew(control);
    } else {
      this.#transmit(control, message);
    }
  }

  #transmit(control, message) {
    const id = this.#next_id++;
    const fail = (why) => this.take({ id, state: "failed", why });
    this.#pending.delete(control.sent?.id); // the later command of a control counts
    control.sent = { ...message, id };
    this.#pending.set(id, control);
    clearTimeout(control.timer);
    this.#setState(control, "pending");
    control.timer = setTimeout(() => fail("no answer from the box"), kOwnTimeout_ms);
    if (!this.#send({ type: "command", ...control.sent })) {
      fail("no connection");
    }
  }

  #setState(control, state, why = "") {
    const text = kStateTexts[state] ?? (why === "" ? state : `${state}: ${why}`);
    control.box.dataset.state = state;
    setText(control.status, text);
    control.again.hidden = !kMayBeSentAgain.includes(state);
    if (state !== "pending") {
      clearTimeout(control.timer);
      this.#announce(`${control.command.label}: ${text}`);
      this.#renew(control);
    }
  }

  #renew(control) {
    if (this.#latest !== null) {
      control.show(this.#latest.items, this.#latest);
    }
  }

  #renewDisabled() {
    for (const { command, box, buttons, again } of this.#controls.values()) {
      const is_possible = this.#is_connected && !this.#view_only;
      const is_off = !is_possible || this.#allowed.get(command.cmd) === false;
      box.classList.toggle("off", is_off);
      box.title = is_off && is_possible ? "not in this mode of the camera" : "";
      [...buttons, again].forEach((button) => (button.disabled = is_off));
    }
  }
}
