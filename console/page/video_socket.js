// The live units as the server sends them, each behind a header:
//
//   bytes   content, little-endian
//   0-7     time of arrival, microseconds of the server's monotonic clock
//   8-11    length of the access unit
//   12      flags: 1 keyframe, 2 units before it are missing
//   13-15   0
//
// and, while there are none, a text that says why.
import { openBackoffSocket } from "./backoff_socket.js";
import { parseObject, text } from "./checks.js";

const kHeaderBytes = 16;
const kLongestUnit = 1 << 20;
const kFlagKeyframe = 1;
const kFlagDiscontinuity = 2;

// {time_us, keyframe, discontinuity, bytes}, null when the message is none of this kind.
export function parseUnit(buffer) {
  if (!(buffer instanceof ArrayBuffer) || buffer.byteLength <= kHeaderBytes) {
    return null;
  }
  const view = new DataView(buffer);
  const length = view.getUint32(8, true);
  const time_us = Number(view.getBigUint64(0, true));
  if (length !== buffer.byteLength - kHeaderBytes || length > kLongestUnit) {
    return null;
  }
  if (!Number.isSafeInteger(time_us)) {
    return null;
  }
  const flags = view.getUint8(12);
  return {
    time_us,
    keyframe: (flags & kFlagKeyframe) !== 0,
    discontinuity: (flags & kFlagDiscontinuity) !== 0,
    bytes: new Uint8Array(buffer, kHeaderBytes),
  };
}

// handlers: {onUnit(unit), onWaiting(reason, text), onStreaming(), onOpen(), onLost(code, wait_ms)}
export function openVideoSocket(handlers) {
  const onText = (data) => {
    const message = parseObject(data);
    if (message?.type === "waiting") {
      handlers.onWaiting(text(message.reason, 40), text(message.text, 300));
    } else if (message?.type === "streaming") {
      handlers.onStreaming();
    }
  };
  const onMessage = (data) => {
    if (typeof data === "string") {
      onText(data);
      return;
    }
    const unit = parseUnit(data);
    if (unit !== null) {
      handlers.onUnit(unit);
    }
  };
  return openBackoffSocket("video", { ...handlers, onMessage }, { sleeps_hidden: true });
}
