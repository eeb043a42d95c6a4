// What is seen, compared with what the clip holds: ffmpeg decodes both to small pictures.
import { execFileSync } from "node:child_process";
import { readFileSync, writeFileSync } from "node:fs";
import { join } from "node:path";
import { joinNals, isSps, readSps, splitNals } from "../../console/page/h264.js";
import { output } from "./box.js";

const kWidth = 96;
const kHeight = 54;
const kBytes = kWidth * kHeight * 3;
// The middle: warnings and the histogram lie on the picture's edges.
const kMiddle = `crop=iw*0.75:ih*0.55:iw*0.02:ih*0.2,scale=${kWidth}:${kHeight}:flags=area,format=rgb24`;
// The clip does not say how its colours are meant; browsers take high definition for BT.709.
const kAsBrowsersDo = "scale=in_color_matrix=bt709:in_range=tv,format=rgb24";

function decode(args, filter, input) {
  const raw = execFileSync(
    "ffmpeg",
    ["-nostdin", "-loglevel", "error", ...args, "-vf", filter, "-f", "rawvideo", "-"],
    { input, maxBuffer: 1 << 26 },
  );
  return Array.from({ length: raw.length / kBytes }, (_, i) =>
    raw.subarray(i * kBytes, (i + 1) * kBytes),
  );
}

export const decodeClip = (clip) => decode(["-i", clip], `${kAsBrowsersDo},${kMiddle}`);

const difference = (a, b) => a.reduce((sum, value, i) => sum + (value - b[i]) ** 2, 0) / a.length;

// {index, error} of the clip's picture that a screenshot (PNG) is most like; the error is the mean
// square of the difference of colour values.
export function nearestPicture(pictures, png) {
  const [seen] = decode(["-f", "png_pipe", "-i", "-"], kMiddle, png);
  const errors = pictures.map((picture) => difference(seen, picture));
  const index = errors.reduce((best, error, i) => (error < errors[best] ? i : best), 0);
  return { index, error: errors[index] };
}

// --- clips that the tests make -------------------------------------------------------------------

export function makeClip(name, size, codec_options) {
  const clip = join(output, name);
  const source = `testsrc2=size=${size}:rate=30:duration=2`;
  const options = `keyint=30:min-keyint=30:scenecut=0:bframes=0:ref=1:repeat-headers=1:aud=0:slices=1:threads=1:sliced-threads=0:${codec_options}`;
  execFileSync("ffmpeg", [
    "-nostdin",
    "-loglevel",
    "error",
    "-y",
    "-f",
    "lavfi",
    "-i",
    source,
    "-c:v",
    "libx264",
    "-pix_fmt",
    "yuv420p",
    "-b:v",
    "1500k",
    "-x264-params",
    options,
    "-f",
    "h264",
    clip,
  ]);
  return clip;
}

const changeClip = (clip, name, change) => {
  const changed = join(output, name);
  writeFileSync(changed, joinNals(change(splitNals(readFileSync(clip)))));
  return changed;
};

// An SPS that ends where its VUI would begin: it says nothing of the pictures' order.
function withoutVui(nal) {
  const sps = readSps(nal);
  const bytes = sps.bytes.slice(0, (sps.vui_at >> 3) + 1);
  const bit = 7 - (sps.vui_at & 7); // vui_parameters_present_flag
  bytes[bytes.length - 1] &= ~((1 << (bit + 1)) - 1);
  if (bit === 0) {
    bytes.push(0x80); // the stop bit
  } else {
    bytes[bytes.length - 1] |= 1 << (bit - 1);
  }
  return Uint8Array.from(bytes);
}

export const clipWithoutRestriction = (clip) =>
  changeClip(clip, "no-restriction.h264", (nals) =>
    nals.map((nal) => (isSps(nal) ? withoutVui(nal) : nal)),
  );

// Of the units only those that build on others.
export const clipWithoutKeyframes = (clip) =>
  changeClip(clip, "no-keyframes.h264", (nals) => nals.filter((nal) => (nal[0] & 0x1f) === 1));
