#!/usr/bin/env python3
"""Holds what a recipe made against the clip that the camera sends in a circle.

  stamp                                 lines of standard input, each behind the time it came
  stamp-ring CLIP                       Annex B on standard input: "time unit" for each unit
  units CLIP FILE LEAST                 FILE (Annex B) is LEAST or more of the clip's units
  pictures HASHES FILE LEAST GAPS RING  stamped FILE names LEAST or more of the clip's pictures
  still CLIP FILE                       FILE (JPEG, PNG) shows one of the clip's pictures

Times are nanoseconds of CLOCK_MONOTONIC. Part of scripts/check-video-out.
"""
import bisect
import os
import re
import subprocess
import sys
import time

SLICE, KEYFRAME_SLICE, SEQUENCE_SET, PICTURE_SET, DELIMITER = 1, 5, 7, 8, 9
STILL_SIZE = (80, 45)
STEADY_LEAST, STEADY_MS = 200, 100  # so many pictures, or nothing is said; so much may a delay grow
STILL_MOST_DIFFERENCE = 20  # the right picture has 2, its neighbours have 200


def nal_units(stream):
    """(offset of the start code, bytes) of each; zeroes behind one belong to the next start code."""
    starts = [match.start() for match in re.finditer(b"\0\0\1", stream)]
    for start, end in zip(starts, starts[1:] + [len(stream)]):
        yield start, stream[start + 3:end].rstrip(b"\0")


def access_units(stream):
    """(offset, NAL units) of each; one slice a picture, as the clip has it. Delimiters and a repeated
    parameter set are the container's own."""
    unit, offset = [], None
    for start, nal in nal_units(stream):
        kind = nal[0] & 31 if nal else 0
        offset = start if offset is None else offset
        if kind != DELIMITER and not (kind in (SEQUENCE_SET, PICTURE_SET) and nal in unit):
            unit.append(nal)
        if kind in (SLICE, KEYFRAME_SLICE):
            yield offset, unit
            unit, offset = [], None


def numbered(units):
    """The clip's units by their slice, which no other has."""
    table = {unit[-1]: number for number, (_, unit) in enumerate(units)}
    assert len(table) == len(units), "two units of the clip are the same"
    return table


def gaps_of(numbers, count):
    return sum((after - before) % count != 1 for before, after in zip(numbers, numbers[1:]))


def fail(text):
    sys.exit(text)


def units(clip, path, least):
    sent = list(access_units(open(clip, "rb").read()))
    table = numbered(sent)
    got = [unit for _, unit in access_units(open(path, "rb").read())]
    for place, unit in enumerate(got):
        number = table.get(unit[-1])
        if number is None and place == len(got) - 1:
            got.pop()  # the recorder was killed while it wrote it
        elif number is None or unit != sent[number][1]:
            fail(f"unit {place} of {len(got)} is not as the camera sent it")
    if len(got) < int(least):
        fail(f"{len(got)} units, {least} are due")
    if gaps_of([table[unit[-1]] for unit in got], len(sent)):
        fail("units are missing in between")
    print(f"{len(got)} units, byte for byte")


def hashes_in(path):
    """(time, hash) of the lines that carry one."""
    found = []
    for line in open(path, errors="replace"):
        match = re.match(r"(\d+) .*?\b([0-9a-f]{32})\b", line)
        if match:
            found.append((int(match[1]), match[2]))
    return found


def latencies_ms(seen, ring):
    """Of pictures (time, number): the time since the ring last had that unit."""
    published = {}
    for line in open(ring):
        stamp, number = line.split()
        published.setdefault(int(number), []).append(int(stamp))
    for stamp, number in seen:
        stamps = published.get(number, [])
        place = bisect.bisect_right(stamps, stamp)
        if place:
            yield (stamp - stamps[place - 1]) / 1e6


def median(values):
    return sorted(values)[len(values) // 2]


def pictures(hashes, path, least, gaps, ring):
    table = {name: number for number, name in enumerate(re.findall(r"\b[0-9a-f]{32}\b", open(hashes).read()))}
    found = [(stamp, table.get(name)) for stamp, name in hashes_in(path)]
    first = next((place for place, (_, number) in enumerate(found) if number is not None), len(found))
    seen = found[first:]  # a decoder that comes in between keyframes may show guesses at first
    if len(seen) < int(least):
        fail(f"{len(seen)} pictures, {least} are due")
    wrong = sum(number is None for _, number in seen)
    if wrong or first > 30:
        fail(f"{wrong + first} of {len(found)} pictures are not the clip's")
    missing = gaps_of([number for _, number in seen], len(table))
    if missing > int(gaps):
        fail(f"{missing} gaps between {len(seen)} pictures")
    late = list(latencies_ms(seen[30:], ring))
    if not late:
        fail("too few pictures for a measure of their delay")
    quarter = len(late) // 4
    first, last = median(late[:quarter + 1]), median(late[-quarter - 1:])
    if len(late) >= STEADY_LEAST and last > first + STEADY_MS:
        fail(f"the delay grows: {first:.0f} ms in the first quarter of the time, {last:.0f} ms in the last")
    late.sort()
    print(f"{len(seen)} pictures, {missing} gaps, {median(late):.0f} ms after the ring"
          f" ({late[len(late) * 95 // 100]:.0f} ms at most for 95 %)")


def small_pictures(path, matrix):
    """All pictures of the file in red, green and blue, each pixel the mean of many: what is left is
    neither how the colours were spread nor how a JPEG rounds."""
    width, height = STILL_SIZE
    raw = subprocess.run(
        ["ffmpeg", "-nostdin", "-loglevel", "error", "-i", path, "-fps_mode", "passthrough", "-f", "rawvideo", "-vf",
         f"scale=iw:ih:in_color_matrix={matrix},format=rgb24,scale={width}:{height}:flags=area", "-"],
        stdout=subprocess.PIPE, check=True).stdout
    return [raw[at:at + width * height * 3] for at in range(0, len(raw), width * height * 3)]


def still(clip, path):
    got = small_pictures(path, "auto")
    if len(got) != 1:
        fail(f"{len(got)} pictures in {path}")

    def difference(picture):
        return sum((a - b) * (a - b) for a, b in zip(picture, got[0])) / len(picture)

    # A stream of this size that does not tell its colours has those of HD television.
    sent = enumerate(small_pictures(clip, "bt709"))
    least, number = min((difference(picture), number) for number, picture in sent)
    if least > STILL_MOST_DIFFERENCE:
        fail(f"{path} is none of the clip's pictures (nearest: {number}, mean squared difference {least:.0f})")
    print(f"picture {number} of the clip (mean squared difference {least:.1f})")


def stamp():
    for line in sys.stdin:
        print(time.monotonic_ns(), line, end="", flush=True)


def stamp_ring(clip):
    """A unit's time is that of the read that brought its first byte; which one it was shows when the
    next begins."""
    table = numbered(list(access_units(open(clip, "rb").read())))
    pending, reads = b"", []  # reads: (offset of the first byte in pending, time)
    while data := os.read(0, 1 << 20):
        reads.append((len(pending), time.monotonic_ns()))
        pending += data
        found = list(access_units(pending))
        for offset, unit in found[:-1]:
            if unit[-1] in table:
                print([stamp for at, stamp in reads if at <= offset][-1], table[unit[-1]], flush=True)
        if found:
            rest = found[-1][0]
            pending = pending[rest:]
            covering = [stamp for at, stamp in reads if at <= rest][-1]
            reads = [(0, covering)] + [(at - rest, stamp) for at, stamp in reads if at > rest]


COMMANDS = {"stamp": stamp, "stamp-ring": stamp_ring, "units": units, "pictures": pictures, "still": still}
try:
    COMMANDS[sys.argv[1]](*sys.argv[2:])
except KeyboardInterrupt:
    pass
