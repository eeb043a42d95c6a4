// The measurements, one function for each. Every one of them starts the programs that it compares
// in turn, as often as there are repetitions, on a core of their own; the load and the reader run
// on another one.
#pragma once

#include <string>
#include <vector>

#include "figures.h"
#include "program.h"

namespace kestrelbridge::bench {

struct Setting {
  std::string programs;   // folder of kestrelbridge and bench_floor
  std::string clip;       // units nearly as large as the wire allows
  std::string demo_clip;  // units as of an ordinary picture
  int repetitions = 5;
  Cores cores;
};

struct Findings {
  std::vector<Row> rows;
  std::vector<std::string> notes;  // text below the table
};

// Processor time for a video datagram, against the floor.
Findings MeasureProcessorTime(const Setting& setting);

// The same for a megabit, and memory, against GStreamer.
Findings MeasurePeer(const Setting& setting);

// The highest rate at which no unit is lost, against the floor.
Findings MeasureHighestRate(const Setting& setting);

// From the datagram that completes a unit to the unit in the ring.
Findings MeasureVisibility(const Setting& setting);

// From the datagram that completes a unit into the hands of a reader that waits for it, against a
// bare echo; and what waiting readers cost.
Findings MeasureReaders(const Setting& setting);

// From the camera to the phone through the relay, against a bare echo and socat.
Findings MeasureRelay(const Setting& setting);

// What the share adds to a telemetry record's way, to the main application and to consumers.
Findings MeasureShare(const Setting& setting);

}  // namespace kestrelbridge::bench
