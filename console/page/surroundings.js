// What surrounds the picture: the two themes, full screen, the keyboard.
import { byId } from "./dom.js";

const kStored = "kestrelbridge-theme";

function storedTheme() {
  try {
    return localStorage.getItem(kStored); // refused in some private windows
  } catch {
    return null;
  }
}

export function createTheme(onChange) {
  const root = document.documentElement;
  const set = (theme) => {
    root.dataset.theme = theme;
    byId("theme").setAttribute("aria-pressed", theme === "sunlight");
    document.querySelector("meta[name=theme-color]").content =
      theme === "sunlight" ? "#ffffff" : "#0c0e11";
  };
  const toggle = () => {
    set(root.dataset.theme === "sunlight" ? "dark" : "sunlight");
    try {
      localStorage.setItem(kStored, root.dataset.theme);
    } catch {
      // It is for this visit, then.
    }
    onChange();
  };
  set(storedTheme() === "sunlight" ? "sunlight" : "dark");
  byId("theme").addEventListener("click", toggle);
  return toggle;
}

// The stage fills the screen; where the browser has no such thing for elements (iPhones), the page.
export function createFullScreen() {
  const stage = byId("stage");
  const show = (is_full) => {
    stage.classList.toggle("full", is_full);
    byId("full").setAttribute("aria-label", is_full ? "Leave full screen" : "Full screen");
  };
  const toggle = async () => {
    const is_full = stage.classList.contains("full");
    if (document.fullscreenElement !== null && is_full) {
      await document.exitFullscreen();
    } else if (!is_full && stage.requestFullscreen) {
      await stage.requestFullscreen({ navigationUI: "hide" }).catch(() => show(true));
      await screen.orientation?.lock?.("landscape").catch(() => {}); // only phones turn
    } else {
      show(!is_full);
    }
  };
  document.addEventListener("fullscreenchange", () => show(document.fullscreenElement === stage));
  byId("full").addEventListener("click", toggle);
  byId("picture").addEventListener("dblclick", toggle);
  return toggle;
}

// Keys of who holds no control: within one they have their own meaning.
export function listenToKeys(actions) {
  addEventListener("keydown", (event) => {
    const is_busy = event.target.closest(
      "input, select, button, a, summary, dialog, [contenteditable]",
    );
    if (event.repeat || event.ctrlKey || event.altKey || event.metaKey) {
      return;
    }
    if (is_busy !== null && (event.key === " " || is_busy.matches("input, select, dialog *"))) {
      return;
    }
    const action = actions[event.key];
    if (action !== undefined && document.querySelector("dialog[open]") === null) {
      event.preventDefault();
      action();
    }
  });
}
