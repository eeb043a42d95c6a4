// The console's page: the live picture, the camera's state, its controls, the link.
import { kSignInNeeded } from "./backoff_socket.js";
import { Controls } from "./controls.js";
import { byId, setText } from "./dom.js";
import { createLinkView } from "./link_view.js";
import { createNotices } from "./notices.js";
import { Player } from "./player.js";
import { askToSignIn, readSession, signOut } from "./sign_in.js";
import { openStateSocket } from "./state_socket.js";
import { createStateView } from "./state_view.js";
import { createFullScreen, createTheme, listenToKeys } from "./surroundings.js";
import { openVideoSocket } from "./video_socket.js";

const kTooMany = 1013;
const kWaitingReasons = [
  "no_ring",
  "no_permission",
  "no_daemon",
  "no_camera",
  "no_video",
  "no_keyframe",
];

const notices = createNotices();
const decoder_notices = notices.of();
const session_notices = notices.of();
const state_view = createStateView();
const link_view = createLinkView();
const sockets = [];
let session = null;

const announce = (text) => setText(byId("announce"), text);

function setLamp(name, is_up) {
  const lamp = byId(`lamp-${name}`);
  lamp.dataset.up = is_up ?? "unknown";
  setText(lamp.querySelector(".said"), is_up === null ? " not known" : is_up ? " up" : " down");
}

// --- connections ----------------------------------------------------------------------------------

async function signInAgain() {
  session_notices.set("signed_out", "Sign in to see the picture.");
  await askToSignIn();
  session_notices.clearAll();
  sockets.forEach((socket) => socket.connectAtOnce());
  showSession();
}

// `told` is the lost connection's place for notices.
function onLost(told, code, wait_ms) {
  told.clearAll();
  if (code === kSignInNeeded) {
    signInAgain();
  } else if (code === kTooMany) {
    told.set(
      "busy",
      "The box has as many viewers as it serves, or this one was too slow. It tries again.",
    );
  } else {
    const wait_s = Math.max(1, Math.round(wait_ms / 1000));
    told.set(
      "no_connection",
      `It does not answer. Is kestrelconsole running, and this device in its network? The next try is in ${wait_s} s.`,
    );
  }
}

// --- picture --------------------------------------------------------------------------------------

function onPicture(player, time_us, width, height, picture) {
  notices.pictureShown();
  byId("tap").hidden = true;
  byId("picture").dataset.player = player;
  byId("picture").style.setProperty("--ratio", width / height);
  const label = `Live picture, ${width} by ${height}`;
  if (byId("canvas").ariaLabel !== label) {
    byId("canvas").ariaLabel = label;
    byId("video").ariaLabel = label;
    setText(
      byId("about"),
      `Picture by ${player}, ${width}×${height}. kestrelconsole ${session?.version ?? ""}`,
    );
  }
  // For who measures: when the unit came to the box, and when its picture was here.
  dispatchEvent(
    new CustomEvent("kestrel-picture", {
      detail: { time_us, shown_ms: picture?.presentationTime ?? performance.now() },
    }),
  );
}

const player = new Player(
  { canvas: byId("canvas"), video: byId("video") },
  {
    onPicture,
    onSkipped: () => dispatchEvent(new CustomEvent("kestrel-skipped")),
    onNeedsTap: () => (byId("tap").hidden = false),
    onNoDecoder: (why) =>
      decoder_notices.set(
        "no_decoder",
        `This browser cannot show the picture: ${why}. Try a recent Chromium, Firefox or Safari.`,
      ),
  },
);

function connectVideo() {
  const told = notices.of();
  return openVideoSocket({
    onOpen: told.clearAll,
    onLost: (code, wait_ms) => {
      player.close(); // the next connection begins with a keyframe
      onLost(told, code, wait_ms);
    },
    onUnit: (unit) => player.feed(unit),
    onWaiting: (reason, text) => {
      told.clearAll();
      told.set(kWaitingReasons.includes(reason) ? reason : "no_video", text);
    },
    onStreaming: told.clearAll,
  });
}

// --- state ----------------------------------------------------------------------------------------

const controls = new Controls((message) => state_socket.send(JSON.stringify(message)), announce);
let state_socket = null;

let page_version = "";

// After an update of the box this page may not fit it any more.
function reloadIfRenewed(version) {
  if (page_version !== "" && version !== page_version) {
    location.reload();
  }
  page_version = version;
}

function connectState() {
  const told = notices.of();
  return openStateSocket({
    onOpen: () => {
      told.clearAll();
      setLamp("box", true);
      document.body.dataset.connected = true;
      controls.setConnected(true);
    },
    onLost: (code, wait_ms) => {
      controls.setConnected(false);
      setLamp("box", false);
      document.body.dataset.connected = false; // what stands there is old
      setLamp("camera", null);
      setLamp("phone", null);
      onLost(told, code, wait_ms);
    },
    hello: (hello) => {
      reloadIfRenewed(hello.version);
      ["controls", "link", "items"].forEach((id) => (byId(id).hidden = false));
      link_view.setBoxTime(hello.time_ms);
      state_view.setItems(hello.items);
      controls.setCommands(hello.commands, hello.view_only);
    },
    telemetry: (telemetry) => {
      state_view.show(telemetry);
      controls.show(telemetry);
    },
    link: (sample) => {
      setLamp("camera", sample.camera_up);
      setLamp("phone", sample.phone_up);
      link_view.add(sample);
    },
    history: link_view.setHistory,
    event: link_view.addEvent,
    events: link_view.setEvents,
    problem: ({ id, text, active }) => (active ? told.set(id, text) : told.clear(id)),
    allowed: (cmds) => controls.setAllowed(cmds),
    command: (fate) => controls.take(fate),
  });
}

// --- the page -------------------------------------------------------------------------------------

async function showSession() {
  session = await readSession().catch(() => null);
  if (session !== null) {
    setText(byId("host"), session.host || "kestrelbridge");
    document.title = session.host ? `${session.host} · kestrelbridge` : "kestrelbridge";
    byId("sign-out").hidden = !(session.password_needed && session.signed_in);
    setText(byId("about"), `kestrelconsole ${session.version}`);
  }
}

const toggleTheme = createTheme(link_view.themeChanged);
const toggleFullScreen = createFullScreen();
const openHelp = () => byId("help").showModal();
byId("help-open").addEventListener("click", openHelp);
byId("tap").addEventListener("click", () => player.tap());
byId("sign-out").addEventListener("click", async () => {
  await signOut().catch(() => {});
  location.reload();
});
listenToKeys({
  " ": () => controls.press("record"),
  s: () => controls.press("shot"),
  f: toggleFullScreen,
  t: toggleTheme,
  "?": openHelp,
});
state_socket = connectState();
sockets.push(connectVideo(), state_socket);
showSession();
