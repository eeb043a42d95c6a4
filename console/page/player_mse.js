// A player by Media Source Extensions, for pages that are no secure context: jmuxer wraps each unit
// into a fragment, the browser's own player shows it, the live-edge rule keeps it from falling behind.
//
// The media's clock follows the time of arrival at the box, so that what came unevenly is shown
// evenly, and a camera whose second is a little longer than the browser's builds up no delay.
import { liveEdge } from "./live_edge.js";
import { loadScript } from "./dom.js";

const kUsualDuration_ms = 33;
const kLongestDuration_ms = 250;
const kRebaseAbove_ms = 500;
const kKeptBehind_s = 10;
const kUnitsRemembered = 300;

const isSafari = () => /^((?!chrome|chromium|android).)*safari/i.test(navigator.userAgent);

// Early, so that the first keyframe need not wait for it.
export const loadMuxer = () => loadScript("vendor/jmuxer.min.js");

export const hasMediaSource = () => "MediaSource" in window || "ManagedMediaSource" in window;

// How long each unit is shown, in whole milliseconds: whatever brings the media's clock to the arrival
// that is expected of the next one.
export function createMediaClock() {
  let usual_ms = kUsualDuration_ms;
  let last_us = null;
  let start_us = 0;
  let media_ms = 0;
  const units = []; // {media_ms, time_us} of the latest ones
  return {
    durationOf(time_us) {
      if (last_us !== null) {
        const gap_ms = (time_us - last_us) / 1000;
        if (gap_ms > 0 && gap_ms < kLongestDuration_ms) {
          usual_ms += (gap_ms - usual_ms) / 16;
        }
      }
      if (last_us === null || Math.abs((time_us - start_us) / 1000 - media_ms) > kRebaseAbove_ms) {
        start_us = time_us - media_ms * 1000;
      }
      last_us = time_us;
      units.push({ media_ms, time_us });
      if (units.length > kUnitsRemembered) {
        units.shift();
      }
      const due_ms = (time_us - start_us) / 1000 + usual_ms;
      const duration_ms = Math.round(Math.min(Math.max(due_ms - media_ms, 1), kLongestDuration_ms));
      media_ms += duration_ms;
      return duration_ms;
    },
    // Time of arrival of the unit that is shown at that media time; null when it is not known.
    arrivalAt(shown_ms) {
      for (let i = units.length - 1; i >= 0; --i) {
        if (units[i].media_ms <= shown_ms + 0.5) {
          return units[i].time_us;
        }
      }
      return null;
    },
  };
}

// Tells events.onShown of each picture that the browser presents, where it says so.
function watchPictures(video, clock, events, isEnded) {
  if (!("requestVideoFrameCallback" in video)) {
    video.addEventListener("timeupdate", () => {
      if (!isEnded() && video.videoWidth > 0) {
        events.onShown(null, video.videoWidth, video.videoHeight);
      }
    });
    return;
  }
  const onPicture = (now, picture) => {
    if (!isEnded()) {
      events.onShown(
        clock.arrivalAt(picture.mediaTime * 1000),
        picture.width,
        picture.height,
        picture,
      );
      video.requestVideoFrameCallback(onPicture);
    }
  };
  video.requestVideoFrameCallback(onPicture);
}

function createEdgeKeeper(video, may_change_rate, events) {
  return (source) => {
    const ranges = source.buffered;
    if (ranges.length === 0) {
      return;
    }
    const end_s = ranges.end(ranges.length - 1);
    const step = liveEdge((end_s - video.currentTime) * 1000, may_change_rate);
    if (step.jump_to_ms !== null) {
      video.currentTime = Math.max(ranges.start(ranges.length - 1), end_s - step.jump_to_ms / 1000);
      events.onSkipped();
    }
    if (video.playbackRate !== step.rate) {
      video.playbackRate = step.rate;
    }
    if (video.paused) {
      video.play().catch((error) => error.name === "NotAllowedError" && events.onNeedsTap());
    }
  };
}

// What is long past only costs memory.
function forgetPast(source, current_s) {
  const first_s = source.buffered.length > 0 ? source.buffered.start(0) : current_s;
  if (!source.updating && current_s - first_s > 2 * kKeptBehind_s) {
    source.remove(first_s, current_s - kKeptBehind_s);
  }
}

// events: {onShown(time_us or null, width, height, picture), onSkipped(), onNeedsTap(),
// onFailed(text)}; after onFailed the player is of no use any more.
export async function createMsePlayer(video, events) {
  await loadMuxer();
  const clock = createMediaClock();
  const keepAtEdge = createEdgeKeeper(video, !isSafari(), events);
  let needs_keyframe = true;
  let ended = false;
  let source = null;
  const fail = (text) => {
    if (!ended) {
      ended = true;
      events.onFailed(text);
    }
  };
  let onOpen = null;
  const opened = new Promise((resolve) => (onOpen = resolve));
  const muxer = new JMuxer({
    node: video,
    mode: "video",
    flushingTime: 0, // at once
    maxDelay: Infinity, // the live-edge rule is ours
    clearBuffer: false,
    onReady: onOpen, // what is fed earlier would be lost
    onUnsupportedCodec: (codec) => fail(`this browser does not play ${codec}`),
    onError: (error) => fail(`the media source refused the stream: ${error.name}`),
  });
  const onAppended = () => {
    if (ended) {
      return;
    }
    keepAtEdge(source);
    forgetPast(source, video.currentTime);
    muxer.releaseBuffer(); // what came in the meantime
  };
  // jmuxer opens the source buffer with the first keyframe.
  const findSource = () => {
    source = muxer.mediaSource?.sourceBuffers[0] ?? null;
    source?.addEventListener("updateend", onAppended);
  };
  video.onerror = () => fail(video.error?.message || "the browser's player stopped");
  watchPictures(video, clock, events, () => ended);
  await opened;

  return {
    name: "Media Source",
    feed(unit) {
      needs_keyframe ||= unit.discontinuity;
      needs_keyframe &&= !unit.keyframe;
      if (ended || needs_keyframe) {
        return;
      }
      const duration = clock.durationOf(unit.time_us);
      muxer.feed({ video: unit.bytes, duration, isLastVideoFrameComplete: true });
      if (source === null) {
        findSource();
      }
    },
    end() {
      ended = true;
      video.onerror = null;
      muxer.destroy();
      video.removeAttribute("src");
      video.replaceChildren();
      video.load();
    },
  };
}
