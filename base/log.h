// The daemon's log: lines on standard error, from any thread, that nobody ever waits for.
//
// Standard error may be a pipe that nobody reads, a stopped journal or a terminal that somebody has
// halted. A line that does not fit now is dropped and counted (Counters::log_lines_dropped); the
// next one that fits is preceded by a line that says how many are missing. Lines come out whole,
// those of one thread in their order. Nothing is allocated and no lock is taken.
//
// What comes from a datagram or a file may hold anything, also what clears an operator's screen:
// control characters other than tab, line feed and carriage return come out as \xNN.
#pragma once

namespace kestrelbridge {

// Arranges for Log not to wait; until then a line waits for its room. First thing in main, when
// descriptor 2 is what it will be.
void OpenLog();

// Writes one line or several; the format ends in its line feed. At most 12,287 bytes, the rest is
// cut. Any thread.
[[gnu::format(printf, 1, 2)]] void Log(const char* format, ...);

}  // namespace kestrelbridge
