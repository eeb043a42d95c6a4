// What the page must know of H.264: where the NAL units of an access unit lie, what a sequence
// parameter set (SPS) says of the picture, and how to add to it what keeps decoders from waiting.
// Pure functions; every byte comes from outside, so every read is checked.

const kNalTypeSps = 7;
const kLongestExpGolomb = 31;
const kLargestSide = 16384; // pixels; more is nonsense

// The bytes of each NAL unit without its start code: 00 00 01, with any number of zeros before it.
export function splitNals(bytes) {
  const nals = [];
  let start = -1;
  for (let i = 0; i + 2 < bytes.length; ++i) {
    if (bytes[i] !== 0 || bytes[i + 1] !== 0 || bytes[i + 2] !== 1) {
      continue;
    }
    if (start >= 0) {
      nals.push(withoutTrailingZeros(bytes.subarray(start, i)));
    }
    start = i + 3;
    i += 2;
  }
  if (start >= 0) {
    nals.push(withoutTrailingZeros(bytes.subarray(start)));
  }
  return nals.filter((nal) => nal.length > 0);
}

function withoutTrailingZeros(nal) {
  let end = nal.length;
  while (end > 0 && nal[end - 1] === 0) {
    --end;
  }
  return nal.subarray(0, end);
}

// An access unit made of NAL units, each behind a start code of four bytes.
export function joinNals(nals) {
  const unit = new Uint8Array(nals.reduce((sum, nal) => sum + nal.length + 4, 0));
  let at = 0;
  for (const nal of nals) {
    unit[at + 3] = 1;
    unit.set(nal, at + 4);
    at += nal.length + 4;
  }
  return unit;
}

export const isSps = (nal) => (nal[0] & 0x1f) === kNalTypeSps;

// --- bits -----------------------------------------------------------------------------------------

// 00 00 03 stands for 00 00 wherever a start code could be seen otherwise.
function unescaped(nal) {
  const out = [];
  for (let i = 0; i < nal.length; ++i) {
    if (nal[i] === 3 && i >= 2 && nal[i - 1] === 0 && nal[i - 2] === 0) {
      continue;
    }
    out.push(nal[i]);
  }
  return out;
}

function escaped(bytes) {
  const out = [];
  let zeros = 0;
  for (const byte of bytes) {
    if (zeros >= 2 && byte <= 3) {
      out.push(3);
      zeros = 0;
    }
    out.push(byte);
    zeros = byte === 0 ? zeros + 1 : 0;
  }
  return Uint8Array.from(out);
}

class BitReader {
  constructor(bytes) {
    this.bytes = bytes;
    this.at = 0; // bits
  }

  bit() {
    if (this.at >= this.bytes.length * 8) {
      throw new RangeError("the parameter set ends too early");
    }
    const bit = (this.bytes[this.at >> 3] >> (7 - (this.at & 7))) & 1;
    ++this.at;
    return bit;
  }

  bits(count) {
    let value = 0;
    for (let i = 0; i < count; ++i) {
      value = value * 2 + this.bit();
    }
    return value;
  }

  ue() {
    let zeros = 0;
    while (this.bit() === 0) {
      if (++zeros > kLongestExpGolomb) {
        throw new RangeError("a number of the parameter set is too long");
      }
    }
    return 2 ** zeros - 1 + this.bits(zeros);
  }

  se() {
    const code = this.ue();
    return code % 2 === 1 ? (code + 1) / 2 : -code / 2;
  }
}

// --- the sequence parameter set -------------------------------------------------------------------

const kProfilesWithChroma = [100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135];

function skipScalingLists(reader, chroma) {
  for (let list = 0; list < (chroma === 3 ? 12 : 8); ++list) {
    if (reader.bit() === 0) {
      continue;
    }
    let last = 8;
    let next = 8;
    for (let i = 0; i < (list < 6 ? 16 : 64); ++i) {
      if (next !== 0) {
        next = (last + reader.se() + 256) % 256;
      }
      last = next === 0 ? last : next;
    }
  }
}

// Returns the chroma format.
function readChroma(reader, profile) {
  if (!kProfilesWithChroma.includes(profile)) {
    return 1;
  }
  const chroma = reader.ue();
  if (chroma === 3) {
    reader.bit();
  }
  reader.ue(); // bit depths
  reader.ue();
  reader.bit();
  if (reader.bit() === 1) {
    skipScalingLists(reader, chroma);
  }
  return chroma;
}

function skipPictureOrder(reader) {
  const type = reader.ue();
  if (type === 0) {
    reader.ue();
  } else if (type === 1) {
    reader.bit();
    reader.se();
    reader.se();
    for (let left = Math.min(reader.ue(), 255); left > 0; --left) {
      reader.se();
    }
  }
}

function readPictureSize(reader, chroma) {
  const columns = reader.ue() + 1;
  const rows = reader.ue() + 1;
  const frames_only = reader.bit();
  if (frames_only === 0) {
    reader.bit();
  }
  reader.bit();
  let width = columns * 16;
  let height = rows * 16 * (2 - frames_only);
  if (reader.bit() === 1) {
    const step_x = chroma === 1 || chroma === 2 ? 2 : 1;
    const step_y = (chroma === 1 ? 2 : 1) * (2 - frames_only);
    width -= (reader.ue() + reader.ue()) * step_x;
    height -= (reader.ue() + reader.ue()) * step_y;
  }
  if (!(width > 0 && height > 0 && width <= kLargestSide && height <= kLargestSide)) {
    throw new RangeError(`the parameter set tells a picture of ${width}x${height}`);
  }
  return { width, height };
}

function skipHrd(reader) {
  const count = reader.ue() + 1;
  reader.bits(8);
  for (let i = 0; i < Math.min(count, 32); ++i) {
    reader.ue();
    reader.ue();
    reader.bit();
  }
  reader.bits(20);
}

// Up to where bitstream_restriction_flag stands.
function skipVuiHead(reader) {
  const kExtendedAspect = 255;
  if (reader.bit() === 1 && reader.bits(8) === kExtendedAspect) {
    reader.bits(32);
  }
  if (reader.bit() === 1) {
    reader.bit();
  }
  if (reader.bit() === 1) {
    reader.bits(4);
    if (reader.bit() === 1) {
      reader.bits(24);
    }
  }
  if (reader.bit() === 1) {
    reader.ue();
    reader.ue();
  }
  if (reader.bit() === 1) {
    reader.bits(65);
  }
  const has_nal_hrd = reader.bit();
  if (has_nal_hrd === 1) {
    skipHrd(reader);
  }
  const has_vcl_hrd = reader.bit();
  if (has_vcl_hrd === 1) {
    skipHrd(reader);
  }
  if (has_nal_hrd === 1 || has_vcl_hrd === 1) {
    reader.bit();
  }
  reader.bit();
}

// {width, height, codec, reference_frames, bytes, vui_at, restriction_at, has_restriction}; positions
// are bits of the unescaped `bytes`, restriction_at is -1 where there is no VUI. Throws RangeError.
export function readSps(nal) {
  const bytes = unescaped(nal);
  const reader = new BitReader(bytes);
  reader.bits(8);
  const profile = reader.bits(8);
  const codec =
    "avc1." + [...bytes.slice(1, 4)].map((b) => b.toString(16).padStart(2, "0")).join("");
  reader.bits(16);
  reader.ue();
  const chroma = readChroma(reader, profile);
  reader.ue();
  skipPictureOrder(reader);
  const reference_frames = reader.ue();
  reader.bit();
  const { width, height } = readPictureSize(reader, chroma);
  const vui_at = reader.at;
  let restriction_at = -1;
  let has_restriction = false;
  if (reader.bit() === 1) {
    skipVuiHead(reader);
    restriction_at = reader.at;
    has_restriction = reader.bit() === 1;
  }
  return { width, height, codec, reference_frames, bytes, vui_at, restriction_at, has_restriction };
}

const bitsOf = (value, count) =>
  Array.from({ length: count }, (_, i) => Math.floor(value / 2 ** (count - 1 - i)) % 2);

function ueBits(value) {
  const length = Math.floor(Math.log2(value + 1));
  return [...bitsOf(0, length), ...bitsOf(value + 1, length + 1)];
}

// The SPS with a bitstream restriction: no picture is shown in another order than it comes in.
// A decoder that is not told so holds back as many pictures as its level allows, to see whether one
// of them is due earlier. A live camera codes no picture ahead of one that is shown before it. An SPS
// that has a restriction of its own is returned as it is.
export function withRestriction(nal, sps = readSps(nal)) {
  if (sps.has_restriction) {
    return nal;
  }
  const source = new BitReader(sps.bytes);
  const has_vui = sps.restriction_at >= 0;
  const bits = [];
  while (source.at < (has_vui ? sps.restriction_at : sps.vui_at)) {
    bits.push(source.bit());
  }
  if (!has_vui) {
    bits.push(1, ...bitsOf(0, 8)); // there is a VUI, with nothing in it up to here
  }
  const kAnyVector = 15; // log2 of the longest one
  bits.push(1, 1); // the restriction; vectors may point over the picture's edge
  for (const value of [0, 0, kAnyVector, kAnyVector, 0, sps.reference_frames]) {
    bits.push(...ueBits(value));
  }
  bits.push(1); // the stop bit
  const bytes = [];
  for (let i = 0; i < bits.length; i += 8) {
    bytes.push(bits.slice(i, i + 8).reduce((byte, bit, at) => byte | (bit << (7 - at)), 0));
  }
  return escaped(bytes);
}

const sameBytes = (a, b) => a.length === b.length && a.every((byte, i) => byte === b[i]);

// Prepares access units for a player: prepare(bytes) gives {bytes, sps}, where sps is what the unit's
// own parameter set says, null when it has none. A parameter set that cannot be read stays as it is:
// the decoder will have its own opinion. Those of a stream repeat; each is read once.
export function createUnitPreparer() {
  let seen = new Uint8Array();
  let rewritten = seen;
  let info = null;
  const read = (nal) => {
    seen = nal.slice();
    rewritten = seen;
    info = null;
    try {
      info = readSps(seen);
      rewritten = withRestriction(seen, info);
    } catch (error) {
      if (!(error instanceof RangeError)) {
        throw error;
      }
    }
  };
  return (bytes) => {
    const nals = splitNals(bytes);
    const at = nals.findIndex(isSps);
    if (at < 0) {
      return { bytes, sps: null };
    }
    if (!sameBytes(nals[at], seen)) {
      read(nals[at]);
    }
    return {
      bytes:
        rewritten === seen ? bytes : joinNals(nals.map((nal, i) => (i === at ? rewritten : nal))),
      sps: info,
    };
  };
}
