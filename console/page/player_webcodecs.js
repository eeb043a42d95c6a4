// A player that decodes each unit as it comes and draws it at once: no buffer, no clock. Only secure
// contexts (TLS, localhost) have the decoder.

const kTooManyWaiting = 15; // units, half a second: then the next keyframe makes them worthless

export const hasWebCodecs = () =>
  typeof VideoDecoder === "function" && typeof EncodedVideoChunk === "function";

// events: {onShown(time_us, width, height), onSkipped(), onFailed(text)}; after onFailed the player is
// of no use any more. `sps` is what the stream's parameter set says.
export function createWebCodecsPlayer(canvas, sps, events) {
  const config = { codec: sps.codec, optimizeForLatency: true };
  const context = canvas.getContext("2d", { alpha: false, desynchronized: true });
  let needs_keyframe = true;
  let ended = false;

  const draw = (frame) => {
    if (!ended) {
      if (canvas.width !== frame.displayWidth || canvas.height !== frame.displayHeight) {
        canvas.width = frame.displayWidth;
        canvas.height = frame.displayHeight;
      }
      context.drawImage(frame, 0, 0, canvas.width, canvas.height);
      events.onShown(frame.timestamp, canvas.width, canvas.height);
    }
    frame.close();
  };
  const fail = (error) => {
    if (!ended) {
      ended = true;
      events.onFailed(error.message);
    }
  };
  const decoder = new VideoDecoder({ output: draw, error: fail });
  decoder.configure(config);

  // Whether the unit is of use.
  const isWanted = (unit) => {
    needs_keyframe ||= unit.discontinuity;
    if (!unit.keyframe) {
      return !needs_keyframe;
    }
    if (decoder.decodeQueueSize > kTooManyWaiting) {
      decoder.reset();
      decoder.configure(config);
      events.onSkipped();
    }
    needs_keyframe = false;
    return true;
  };

  return {
    name: "WebCodecs",
    feed(unit) {
      if (ended || !isWanted(unit)) {
        return;
      }
      try {
        decoder.decode(
          new EncodedVideoChunk({
            type: unit.keyframe ? "key" : "delta",
            timestamp: unit.time_us,
            data: unit.bytes,
          }),
        );
      } catch (error) {
        fail(error);
      }
    },
    end() {
      ended = true;
      if (decoder.state !== "closed") {
        decoder.close();
      }
    },
  };
}
