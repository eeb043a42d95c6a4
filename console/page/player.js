// Shows the live units by whichever player the browser has, and takes a new one when the picture's
// size changes or the old one failed. Where WebCodecs fails, Media Source gets its turn.
import { createUnitPreparer } from "./h264.js";
import { createMsePlayer, hasMediaSource, loadMuxer } from "./player_mse.js";
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

const streamOf = (sps) => `${sps.codec} ${sps.width}x${sps.height}`;

// elements: {canvas, video}. events: {onPicture(name, time_us, width, height, picture), onSkipped(),
// onNeedsTap(), onNoDecoder(text)}.
export class Player {
  #elements;
  #events;
  #kinds = playersOfThisBrowser();
  #prepare = createUnitPreparer();
  #stream = ""; // size and codec that the present player was made for
  #player = null;
  #opening = 0; // counts; a player that opens for an older one is thrown away
  #held = []; // units since the keyframe, while a player opens
  #failures = 0;
  #waiting_since = null; // for a picture

  constructor(elements, events) {
    this.#elements = elements;
    this.#events = events;
    if (this.#kinds[0] === "mse") {
      loadMuxer().catch(() => {}); // it is tried again with the first picture
    }
    if (this.#kinds.length === 0) {
      queueMicrotask(() =>
        events.onNoDecoder("it has neither WebCodecs nor Media Source Extensions"),
      );
    }
  }

  feed(unit) {
    if (this.#kinds.length === 0) {
      return;
    }
    const { bytes, sps } = this.#prepare(unit.bytes);
    if (sps !== null && streamOf(sps) !== this.#stream) {
      this.#open(sps);
    }
    if (this.#stream === "") {
      return; // no parameter set yet
    }
    this.#held.push({ ...unit, bytes, keyframe: unit.keyframe || sps !== null });
    if (this.#held.length > kMostHeld) {
      this.#held.shift();
    }
    if (this.#player !== null) {
      this.#feedHeld();
      this.#checkPatience();
    }
  }

  // The user wants it to play: some browsers wait for that.
  tap() {
    this.#elements.video.play().catch(() => {});
  }

  close() {
    ++this.#opening;
    this.#player?.end();
    this.#player = null;
    this.#held = [];
    this.#stream = "";
    this.#waiting_since = null;
  }

  async #open(sps) {
    const { canvas, video } = this.#elements;
    this.close();
    const mine = this.#opening;
    this.#stream = streamOf(sps);
    canvas.hidden = this.#kinds[0] !== "webcodecs";
    video.hidden = !canvas.hidden; // a hidden one would not tell of its pictures
    try {
      const made = canvas.hidden
        ? await createMsePlayer(video, this.#listeners(mine))
        : createWebCodecsPlayer(canvas, sps, this.#listeners(mine));
      if (mine !== this.#opening) {
        made.end();
        return;
      }
      this.#player = made;
      this.#feedHeld();
    } catch (error) {
      if (mine === this.#opening) {
        this.#giveUp(error.message);
      }
    }
  }

  // What a player tells counts only while it is the present one.
  #listeners(mine) {
    const ifMine =
      (call) =>
      (...values) =>
        mine === this.#opening && call(...values);
    return {
      onShown: ifMine((...picture) => {
        this.#failures = 0;
        this.#waiting_since = null;
        this.#events.onPicture(this.#player?.name ?? "", ...picture);
      }),
      onSkipped: ifMine(this.#events.onSkipped),
      onNeedsTap: ifMine(() => {
        this.#waiting_since = null;
        this.#events.onNeedsTap();
      }),
      onFailed: ifMine((why) => this.#giveUp(why)),
    };
  }

  #feedHeld() {
    for (const unit of this.#held.splice(0)) {
      this.#player?.feed(unit);
    }
  }

  #checkPatience() {
    this.#waiting_since ??= performance.now();
    if (performance.now() - this.#waiting_since > kPatience_ms && !document.hidden) {
      this.#giveUp(`${this.#player?.name} shows no picture`);
    }
  }

  // The next keyframe opens another player, after some failures in a row one of another kind.
  #giveUp(why) {
    this.close();
    this.#failures += 1;
    if (this.#failures >= kFailuresInARow) {
      this.#kinds.shift();
      this.#failures = 0;
    }
    if (this.#kinds.length === 0) {
      this.#events.onNoDecoder(why);
    }
  }
}
