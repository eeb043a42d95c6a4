// The telemetry as a page: the latest value of everything. Pure; time is passed in.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "net/udp_endpoint.h"
#include "tools/main_app/telemetry_records.h"

namespace kestrelbridge::tools {

class TelemetryView {
 public:
  using Time = std::chrono::steady_clock::time_point;

  explicit TelemetryView(Time start);

  void Take(const TelemetryRecord& record, UdpPeer sender, Time now);

  // The page as it is to be seen, its most important lines first: in two columns of items where the
  // width is 80 or more, in one where it is less, down to 40.
  std::vector<std::string> Lines(Time now, std::size_t width);

 private:
  using Counts = std::array<std::uint64_t, kRecordTypeCount>;
  struct Mark {
    Time time;
    Counts counts{};
  };

  [[nodiscard]] std::string Title(Time now) const;
  [[nodiscard]] std::string Rates(Time now);
  void AppendItems(std::vector<std::string>& lines, std::size_t width) const;
  void AppendHistogram(std::vector<std::string>& lines, Time now, std::size_t width) const;

  TelemetryRecord text_;
  TelemetryRecord status_;
  TelemetryRecord histogram_;
  UdpPeer sender_;
  Time last_record_;
  Time last_histogram_;
  Counts counts_{};
  std::deque<Mark> marks_;  // one a second, for the rates of the last few seconds
};

}  // namespace kestrelbridge::tools
