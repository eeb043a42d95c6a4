// Shows the live units by whichever player the browser has, and takes a new one when the picture's
// size changes or the old one failed. Where WebCodecs fails, Media Source gets its turn.
import { createUnitPreparer } from "./h264.js";
import { createMsePlayer, hasMediaSource } from "./player_mse.js";
import { createWebCodecsPlayer, hasWebCodecs } from "./player_webcodecs.js";

const kFailuresInARow = 3;
const kPatience_ms = 4000; // units come, and no picture
const kMostHeld = 400; // units, while a player opens

function playersOfThisBrowser() {
  const wanted = new URLSearchParams(location.search).get("player"); // to compare them
  const kinds = [
    ...(hasWebCodecs() && window.isSecureContext ? ["webcodecs"] : []),
    ...(hasMediaSource() ? ["mse"] : []),
  ];
  return kinds.includes(wanted) ? [wanted] : kinds;
}

// events: {onPicture(name, width, height, time_us, picture), onSkipped(), onNeedsTap(),
// onNoDecoder(text)}. Elements: {canvas, video}.
export function createPlayer({ canvas, video }, events) {
  const kinds = playersOfThisBrowser();
  const prepare = createUnitPreparer();
  let stream = ""; // size and codec that the present player was made for
  let player = null;
  let opening = 0; // counts; a player that opens for an older one is thrown away
  let held = []; // units since the keyframe, while a player opens
  let failures = 0;
  let waiting_since = null;

  const close = () => {
    ++opening;
    player?.end();
    player = null;
    held = [];
    stream = "";
  };
  const giveUp = (text) => {
    close();
    failures += 1;
    waiting_since = null;
    if (failures >= kFailuresInARow) {
      kinds.shift();
      failures = 0;
    }
    if (kinds.length === 0) {
      events.onNoDecoder(text);
    }
  };
  const listeners = (mine) => {
    const ifMine = (call) => (...values) => mine === opening && call(...values);
    return {
      onShown: ifMine((time_us, width, height, picture) => {
        failures = 0;
        waiting_since = null;
        events.onPicture(player?.name ?? "", width, height, time_us, picture);
      }),
      onSkipped: ifMine(events.onSkipped),
      onNeedsTap: ifMine(() => {
        waiting_since = null;
        events.onNeedsTap();
      }),
      onFailed: ifMine(giveUp),
    };
  };
  const open = async (sps) => {
    close();
    const mine = opening;
    stream = streamOf(sps);
    canvas.hidden = kinds[0] !== "webcodecs";
    video.hidden = !canvas.hidden; // a hidden one would not tell of its pictures
    try {
      const made =
        kinds[0] === "webcodecs"
          ? createWebCodecsPlayer(canvas, sps, listeners(mine))
          : await createMsePlayer(video, listeners(mine));
      if (mine !== opening) {
        made.end();
        return;
      }
      player = made;
      feedHeld();
    } catch (error) {
      if (mine === opening) {
        giveUp(error.message);
      }
    }
  };
  const streamOf = (sps) => `${sps.codec} ${sps.width}x${sps.height}`;
  const feedHeld = () => {
    for (const unit of held.splice(0)) {
      player?.feed(unit);
    }
  };
  const checkPatience = () => {
    waiting_since ??= performance.now();
    if (performance.now() - waiting_since > kPatience_ms && !document.hidden) {
      giveUp(`${player?.name} shows no picture`);
    }
  };

  if (kinds.length === 0) {
    queueMicrotask(() => events.onNoDecoder("it has neither WebCodecs nor Media Source Extensions"));
  }
  return {
    feed(unit) {
      if (kinds.length === 0) {
        return;
      }
      const { bytes, sps } = prepare(unit.bytes);
      if (sps !== null && streamOf(sps) !== stream) {
        open(sps);
      }
      if (stream === "") {
        return; // no parameter set yet
      }
      held.push({ ...unit, bytes, keyframe: unit.keyframe || sps !== null });
      if (held.length > kMostHeld) {
        held.shift();
      }
      if (player !== null) {
        feedHeld();
        checkPatience();
      }
    },
    tap: () => video.play().catch(() => {}),
    close,
  };
}
