// What is wrong, plainly: in the middle of the picture when there is none, as a list of warnings on
// its edge otherwise. Each problem has an id; the latest text of an id counts.
import { byId, element, setText } from "./dom.js";

// Those that explain why there is no picture, the deepest cause first, with a heading. The page's own
// ones are told by main.js, the others by the server.
const kHeadings = new Map([
  ["no_connection", "No connection to the box"],
  ["signed_out", "Signed out"],
  ["busy", "Too many viewers"],
  ["no_decoder", "No decoder"],
  ["no_permission", "No permission"],
  ["no_ring", "No video memory"],
  ["no_daemon", "No daemon"],
  ["no_camera", "No camera"],
  ["no_video", "No video"],
  ["no_keyframe", "Waiting for a keyframe"],
]);

const kStale_ms = 1500; // without a new picture

// One place for all who find problems: of(source) gives each its own set(id, text), clear(ids...) and
// clearAll(), so that none clears what another still sees.
export function createNotices() {
  const sources = []; // maps of text by id
  const picture = byId("picture");
  const shown = new Map(); // warnings' elements by id
  let last_picture = -Infinity;
  let has_picture = false;

  const problems = () => new Map(sources.flatMap((source) => [...source]));
  const showWarnings = () => {
    const wanted = [...problems()].filter(([id]) =>
      has_picture ? id !== "no_keyframe" : !kHeadings.has(id),
    );
    const ids = new Set(wanted.map(([id]) => id));
    shown.forEach((item, id) => ids.has(id) || (item.remove(), shown.delete(id)));
    for (const [id, text] of wanted) {
      if (!shown.has(id)) {
        shown.set(id, element("li", { "data-id": id }));
        byId("warnings").append(shown.get(id));
        setText(byId("alarm"), text);
      }
      setText(shown.get(id), text);
    }
  };
  const showNotice = () => {
    const all = problems();
    const cause = [...kHeadings.keys()].find((id) => all.has(id));
    const [heading, advice] = byId("notice").children;
    byId("notice").hidden = has_picture;
    picture.dataset.state = has_picture ? "live" : last_picture > 0 ? "stale" : "none";
    if (!has_picture) {
      setText(heading, kHeadings.get(cause) ?? "Waiting for the picture");
      setText(advice, cause === undefined ? "The first keyframe brings it." : all.get(cause));
    }
  };
  const renew = () => {
    has_picture = performance.now() - last_picture < kStale_ms;
    showNotice();
    showWarnings();
  };
  setInterval(() => has_picture && renew(), kStale_ms / 3);
  return {
    of() {
      const mine = new Map();
      sources.push(mine);
      return {
        set(id, text) {
          mine.set(id, text);
          renew();
        },
        clear(...ids) {
          ids.forEach((id) => mine.delete(id));
          renew();
        },
        clearAll() {
          mine.clear();
          renew();
        },
      };
    },
    pictureShown() {
      last_picture = performance.now();
      if (!has_picture) {
        renew();
      }
    },
  };
}
