// A thread that takes each unit out of the ring when it comes, and notes when that was, whatever
// holds up the pipeline: a sink that shows pictures in time does so for most of it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

#include "gstreamer/unit_source.h"

namespace kestrelbridge::gstreamer {

class UnitFeed {
 public:
  // The thread starts with the first Take; it asks `policy` before each unit.
  UnitFeed(FrameBlockReader::Start start, std::function<UnitPolicy()> policy)
      : source_(start), policy_(std::move(policy)) {}
  UnitFeed(const UnitFeed&) = delete;
  UnitFeed& operator=(const UnitFeed&) = delete;
  // Takes some 0.1 ms at most: the thread is woken.
  ~UnitFeed();

  // The next unit; after `patience`, what is the case instead. A feed of which nobody takes keeps
  // as many units as the ring has slots; then the ring keeps as many, and then units are lost.
  RingState Take(OutgoingUnit& unit, std::chrono::milliseconds patience);

  // Ends a Take that waits, and each further one, until Continue. Any thread.
  void Interrupt();
  void Continue();

  // Any thread.
  [[nodiscard]] UnitSource::Counters counters() const;

 private:
  void Run();

  UnitSource source_;  // the thread's, but for Interrupt
  std::function<UnitPolicy()> policy_;
  std::thread thread_;

  mutable std::mutex mutex_;  // what follows
  std::condition_variable news_;
  std::condition_variable room_;
  std::deque<OutgoingUnit> units_;
  RingState state_ = RingState::kQuiet;  // where there is no unit
  UnitSource::Counters counters_;
  bool interrupted_ = false;
  bool ends_ = false;
};

}  // namespace kestrelbridge::gstreamer
