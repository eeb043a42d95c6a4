// The commands as controls, made from what the server's hello says exists: not one word stands here.
// A control shows what the telemetry says; a command that was given is pending until the server tells
// that the telemetry proves it, and offers "Send again" when it does not.
import { askForWord } from "./ask.js";
import { byId, element, setText } from "./dom.js";

const kFewWords = 4; // side by side; more go into a list
const kOwnTimeout_ms = 6000; // the server answers after three seconds; later it is gone

// Where a control stands; what is not named here comes last.
const kGroups = [
  ["Light", ["video_mode", "shutter", "iso", "ev"]],
  ["Colour", ["wb", "color", "histogram"]],
  ["Format", ["camera", "video_resolution", "video_aspect", "shotmode", "video_std", "antiflicker"]],
  ["Camera", []],
];
const kTriggers = ["shot", "record"];

const kStateTexts = {
  pending: "waiting for the camera",
  sent: "sent",
  done: "done",
};

// --- one control ----------------------------------------------------------------------------------

// What every control has: its command, the fields that show how a command of it fares.
function createControl(command) {
  const status = element("span", { class: "status" });
  const again = element("button", { type: "button", class: "again", hidden: true }, "Send again");
  return { command, status, again, buttons: [], show: () => {}, sent: null, timer: 0 };
}

// A switch's words are read as such.
const kSpoken = new Map([["1", "on"], ["0", "off"]]);
const isSwitch = (words) => words.length === 2 && words.every(({ word }) => kSpoken.has(word));

function wordButton(control, word, send) {
  const spoken = isSwitch(control.command.words) ? kSpoken.get(word.word) : word.word;
  const button = element(
    "button",
    { type: "button", class: word.ask === "" ? "word" : "word danger", "aria-pressed": "false" },
    word.ask === "" ? spoken : `${spoken}…`,
  );
  button.addEventListener("click", () => send(word));
  control.buttons.push(button);
  return button;
}

// Few words: buttons side by side, the present one pressed.
function buildButtons(control, send) {
  const { words, item, label } = control.command;
  const row = element("div", { class: "words", role: "group", "aria-label": label });
  const buttons = words.map((word) => wordButton(control, word, send));
  row.append(...buttons);
  const isPresent = (word, items, histogram) =>
    word.shows !== "" ? items.get(item) === word.shows : item === "histogram" && (word.word === "1") === (histogram !== null);
  control.show = (items, { histogram }) =>
    words.forEach((word, i) => buttons[i].setAttribute("aria-pressed", isPresent(word, items, histogram)));
  return row;
}

// Many words: a list, with a step to each side of it.
function buildList(control, send) {
  const { words, item, label } = control.command;
  const unknown = element("option", { value: "", disabled: true, selected: true }, "–");
  const select = element(
    "select",
    { "aria-label": label },
    unknown,
    ...words.map((word, i) => element("option", { value: i }, word.word)),
  );
  const stepTo = (step) => {
    const at = select.value === "" ? -1 : Number(select.value);
    const next = Math.min(Math.max(at + step, 0), words.length - 1);
    if (next !== at) {
      select.value = next;
      send(words[next]);
    }
  };
  const step = (sign, by) =>
    element("button", { type: "button", "aria-label": `${label}: ${by < 0 ? "previous" : "next"}`, on: { click: () => stepTo(by) } }, sign);
  select.addEventListener("change", () => send(words[Number(select.value)]));
  const row = element("div", { class: "list" }, step("‹", -1), select, step("›", 1));
  control.buttons.push(select, ...row.querySelectorAll("button"));
  control.show = (items) => {
    const present = words.findIndex((word) => word.shows !== "" && word.shows === items.get(item));
    const wanted = present < 0 ? "" : String(present);
    if (select.value !== wanted) {
      select.value = wanted;
    }
  };
  return row;
}

// The number that one of the words needs beside it.
function buildValue(control, word, send) {
  const { min, max, step, unit, item } = word.value;
  const id = `value-${control.command.cmd}`;
  const input = element("input", { id, type: "number", min, max, step, inputmode: "numeric", value: min });
  const button = element("button", { type: "button" }, "Set");
  const form = element(
    "form",
    { class: "value-form" },
    element("label", { for: id }, unit === "" ? word.word : `${word.word}, ${unit}`),
    input,
    button,
  );
  button.type = "submit";
  form.addEventListener("submit", (event) => {
    event.preventDefault();
    send(word, String(input.valueAsNumber));
  });
  const showWord = control.show;
  control.show = (items, telemetry) => {
    showWord(items, telemetry);
    const present = Number(items.get(item) ?? "");
    if (document.activeElement !== input && present >= min && present <= max) {
      input.value = present;
    }
  };
  control.buttons.push(input, button);
  return { form, read: () => String(input.valueAsNumber) };
}

function buildAction(control, send) {
  const { label, ask } = control.command;
  const button = wordButton(control, { word: label, ask }, () => send(null));
  button.removeAttribute("aria-pressed");
  return element("div", { class: "words" }, button);
}

// Shot, and record with its two words: big, under the thumb.
function buildTrigger(control, send) {
  const { cmd, label, words } = control.command;
  const button = element("button", { type: "button", class: `trigger ${cmd}` });
  const name = element("span", { class: "name" }, label);
  button.append(element("span", { class: "face", "aria-hidden": "true" }), name);
  control.buttons.push(button);
  let recording = false;
  control.press = () => send(words.length === 2 ? words[recording ? 1 : 0] : null);
  button.addEventListener("click", control.press);
  if (words.length === 2) {
    control.show = (items, telemetry) => {
      recording = telemetry.recording;
      button.dataset.on = recording;
      button.setAttribute("aria-pressed", recording);
      setText(name, recording ? words[1].word : label);
    };
  }
  return button;
}

function buildBody(control, send) {
  const { words } = control.command;
  if (words.length === 0) {
    return [buildAction(control, send)];
  }
  const with_value = words.find((word) => word.value !== null);
  let value = null;
  const sendWord = (word) => (word === with_value ? send(word, value.read()) : send(word));
  const body = words.length <= kFewWords ? buildButtons(control, sendWord) : buildList(control, sendWord);
  if (with_value === undefined) {
    return [body];
  }
  value = buildValue(control, with_value, send);
  return [body, value.form];
}

// --- all of them ----------------------------------------------------------------------------------

function layOut(controls, bodies) {
  const named = new Set([...kTriggers, ...kGroups.flatMap(([, cmds]) => cmds)]);
  const groups = kGroups.map(([title, cmds], i) => {
    const is_last = i === kGroups.length - 1;
    const mine = is_last ? [...controls.keys()].filter((cmd) => !named.has(cmd)) : cmds;
    const present = mine.filter((cmd) => controls.has(cmd));
    return present.length === 0
      ? []
      : [element("fieldset", {}, element("legend", {}, title), ...present.map((cmd) => bodies.get(cmd)))];
  });
  byId("control-groups").replaceChildren(...groups.flat());
  byId("trigger").replaceChildren(...kTriggers.filter((cmd) => bodies.has(cmd)).map((cmd) => bodies.get(cmd)));
}

// send(message) gives a command to the server and returns whether it went out; announce(text) says
// it to a screen reader.
export function createControls(send, announce) {
  let controls = new Map(); // by cmd
  let pending = new Map(); // controls by the id of their command
  let next_id = 1;
  let can_send = false;
  let view_only = false;
  let allowed = new Map();
  let latest = null;

  const renew = (control) => latest !== null && control.show(latest.items, latest);
  const setState = (control, state, why = "") => {
    control.box.dataset.state = state;
    const text = kStateTexts[state] ?? (why === "" ? state : `${state}: ${why}`);
    setText(control.status, text);
    control.again.hidden = state !== "failed" && state !== "refused";
    if (state !== "pending") {
      clearTimeout(control.timer);
      announce(`${control.command.label}: ${text}`);
      renew(control);
    }
  };
  const transmit = (control, message) => {
    const id = next_id++;
    pending.delete(control.sent?.id);
    control.sent = { ...message, id };
    pending.set(id, control);
    clearTimeout(control.timer);
    setState(control, "pending");
    control.timer = setTimeout(() => take({ id, state: "failed", why: "no answer from the box" }), kOwnTimeout_ms);
    if (!send({ type: "command", ...control.sent })) {
      take({ id, state: "failed", why: "no connection" });
    }
  };
  const give = async (control, word, value) => {
    const { cmd, label, ask } = control.command;
    const wanted = word?.ask || ask;
    const message = { cmd, ...(word && { param: word.word }), ...(value !== undefined && { value }) };
    if (wanted !== "") {
      const typed = await askForWord(word ? `${label}: ${word.word}` : label, wanted);
      if (typed === null) {
        renew(control);
        return;
      }
      message.confirm = typed;
    }
    transmit(control, message);
  };
  const take = ({ id, state, why }) => {
    const control = pending.get(id);
    if (control === undefined) {
      return;
    }
    setState(control, state, why);
    if (state !== "pending") {
      pending.delete(id);
    }
  };
  const renewDisabled = () => {
    for (const { command, box, buttons, again } of controls.values()) {
      const is_off = !can_send || view_only || allowed.get(command.cmd) === false;
      box.classList.toggle("off", is_off);
      box.title = is_off && can_send && !view_only ? "not in this mode of the camera" : "";
      [...buttons, again].forEach((button) => (button.disabled = is_off));
    }
  };
  const build = (command) => {
    const control = createControl(command);
    const is_trigger = kTriggers.includes(command.cmd);
    const sendIt = (word, value) => give(control, word, value);
    const body = is_trigger ? [buildTrigger(control, sendIt)] : buildBody(control, sendIt);
    const has_label = !is_trigger && command.words.length > 0;
    const label = has_label ? [element("span", { class: "label" }, command.label)] : [];
    const head = element("div", { class: "head" }, ...label, control.status, control.again);
    control.box = element("div", { class: "control", id: `control-${command.cmd}` }, ...(is_trigger ? [...body, head] : [head, ...body]));
    control.again.addEventListener("click", () => transmit(control, control.sent));
    return control;
  };
  const setCommands = (commands, is_view_only) => {
    view_only = is_view_only;
    controls.forEach((control) => clearTimeout(control.timer));
    controls = new Map(commands.map((command) => [command.cmd, build(command)]));
    pending = new Map();
    layOut(controls, new Map([...controls].map(([cmd, control]) => [cmd, control.box])));
    const note = byId("controls-note");
    note.hidden = !view_only;
    setText(note, "This console only shows: it was started to take no commands.");
    controls.forEach(renew);
    renewDisabled();
  };

  return {
    setCommands,
    take,
    show(telemetry) {
      latest = telemetry;
      // One with a command under way goes on showing what was asked for.
      controls.forEach((control) => control.box.dataset.state !== "pending" && renew(control));
    },
    setAllowed(cmds) {
      allowed = cmds;
      renewDisabled();
    },
    setConnected(is_connected) {
      can_send = is_connected;
      if (!is_connected) {
        [...pending.keys()].forEach((id) => take({ id, state: "failed", why: "the connection was lost" }));
      }
      renewDisabled();
    },
    // As if the control's button was pressed.
    press(cmd) {
      const control = controls.get(cmd);
      if (control?.press && !control.buttons[0].disabled) {
        control.press();
      }
    },
  };
}
