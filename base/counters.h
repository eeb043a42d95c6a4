// What the daemon counts, in one record for the whole process: where a loss happened shows in the
// difference between two counters that should be the same. app/metrics.cpp gives them their names
// for users, docs/metrics.md their meaning.
//
// Counters start at 0 and only go up. They carry no other data, so relaxed access is enough.
#pragma once

#include <atomic>
#include <cstdint>

namespace kestrelbridge {

// Read by any thread, while others add.
class Counter {
 public:
  std::uint64_t Value() const { return value_.load(std::memory_order_relaxed); }

 protected:
  std::atomic<std::uint64_t> value_{0};
};

// Only ever one thread adds to it: no locked instruction on the way of a datagram.
class OwnedCounter : public Counter {
 public:
  void Add(std::uint64_t amount = 1) {
    value_.store(value_.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
  }
};

// Any thread adds to it.
class SharedCounter : public Counter {
 public:
  void Add(std::uint64_t amount = 1) { value_.fetch_add(amount, std::memory_order_relaxed); }
};

// Of one endpoint.
struct LinkCounters {
  // Its receive thread's.
  OwnedCounter received_datagrams;  // by us, from whoever: the kernel's drops are not among them
  OwnedCounter received_bytes;      // of those datagrams
  OwnedCounter handled_datagrams;   // of those, that are done with; no metric, see HasHung
  // Its watchdog's.
  OwnedCounter lost;  // times that the peer was silent for too long
  // Either's.
  SharedCounter found;  // times that the first datagram of a peer came
  // Any sender's.
  SharedCounter sent_datagrams;  // that the kernel took
  SharedCounter sent_bytes;      // of those datagrams
  SharedCounter send_failures;   // that it did not take, or that had no valid address
};

struct Counters {
  LinkCounters camera;
  LinkCounters main_app;         // its commands and our telemetry
  LinkCounters main_app_second;  // the endpoint that drops what comes
  LinkCounters phone;
  LinkCounters unnamed;  // endpoints that are none of these

  // The camera's receive thread's. A datagram of the camera is of one of four kinds:
  OwnedCounter video_datagrams;         // pieces of access units
  OwnedCounter command_data_datagrams;  // pieces of what holds the pushes
  OwnedCounter ignored_datagrams;       // of any other kind
  OwnedCounter short_datagrams;         // shorter than a wrapper's kind and sequence

  OwnedCounter stray_video_datagrams;   // too short, or before the first unit header
  OwnedCounter units_published;         // in the ring
  OwnedCounter published_bytes;         // of those units
  OwnedCounter units_corrupted;         // their length is not what their header announced
  OwnedCounter units_spoiled;           // in the ring when further bytes came: --low-latency
  OwnedCounter units_not_published;     // whole, but no H.264
  OwnedCounter video_overflows;         // of the buffer that gathers a unit
  OwnedCounter command_data_overflows;  // of the buffer that gathers command data
  OwnedCounter acknowledgements;        // that went out

  OwnedCounter frames_found;      // command frames with right check sums, pushes or not
  OwnedCounter status_pushes;     // frames that told model, mode, card and recording
  OwnedCounter settings_pushes;   // exposure and picture settings
  OwnedCounter battery_pushes;    // charge
  OwnedCounter histogram_pushes;  // brightness

  OwnedCounter relayed_to_phone;  // the camera's datagrams that went out to the phone app

  // The phone endpoint's receive thread's.
  OwnedCounter relayed_to_camera;   // the phone app's datagrams that went out to the camera
  OwnedCounter phone_peer_changes;  // times that its stream was taken over by another address

  // Any thread's.
  SharedCounter log_lines_dropped;  // that standard error had no room for

  // The camera thread's.
  OwnedCounter connection_requests;  // that went out
  OwnedCounter keepalives;           // that went out

  // The command endpoint's receive thread's.
  OwnedCounter app_command_frames;    // that went out for the main application
  OwnedCounter app_messages_ignored;  // datagrams that are no command, or no known one

  // The remote-control thread's.
  OwnedCounter rc_command_frames;  // that went out for the remote control

  // The telemetry thread's.
  OwnedCounter text_records;       // that went out, one a second
  OwnedCounter status_records;     // that went out, five a second
  OwnedCounter histogram_records;  // that went out, five a second while a histogram is current
};

inline constinit Counters process_counters;

// The process's one record. Any thread; constant, so that an endpoint may point at its part.
constexpr Counters& GetCounters() { return process_counters; }

}  // namespace kestrelbridge
