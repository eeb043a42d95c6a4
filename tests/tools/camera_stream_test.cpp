// What the simulated camera sends: units and their datagrams, a bad link.

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <string>
#include <vector>

#include "tools/annexb.h"
#include "tools/camera_wire.h"
#include "tools/clip.h"
#include "tools/datagram_faults.h"
#include "tools/tool_error.h"
#include "tools/unit_schedule.h"

namespace kestrelbridge {
namespace {

using Bytes = std::vector<std::uint8_t>;

// (That a clip is cut where its pictures begin shows when the real programs stream one.)
TEST(Clip, WhatTheCameraCannotSendIsRefusedOrNamed) {
  Bytes clip = {0, 0, 0, 1, 0x65, 0x88, 0, 0, 1, 0x41, 0x9A};  // a long start code, a short one
  EXPECT_EQ(UnitsWithoutLongStartCode(SplitAccessUnits(clip)), std::vector<std::size_t>{1});
  clip.resize(6 + 65'535, 0xFF);
  EXPECT_NO_THROW(CutClip(clip));
  clip.push_back(0xFF);  // longer than the unit header can tell
  EXPECT_THROW(CutClip(clip), ToolError);
  EXPECT_THROW(CutClip(Bytes{0, 0, 0, 1, 0x67, 0x42}), ToolError) << "no picture";
  EXPECT_THROW(ReadClip("/nonexistent/clip"), ToolError);
}

constexpr std::size_t kWrapperEnd = 20;
constexpr std::size_t kHeaderEnd = 32;

TEST(CameraWire, UnitHeaderDatagramByteByByte) {
  const Bytes unit = {0x00, 0x00, 0x00, 0x01, 0x65};
  Bytes buffer(100, 0xEE);
  const auto datagram = BuildUnitDatagram(unit, 0, 0x1234, buffer);
  const Bytes expected = {
      0x25, 0x80, 0x30, 0x32, 0x00, 0x00, 0x02, 0xA5,  // length 37, fixed, kind 2, XOR
      0x00, 0x00, 0x34, 0x12, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  // sequence
      0x00, 0x00, 0x01, 0xFF, 0x05, 0x00, 0xFF, 0x00, 0x4C, 0x00, 0x00, 0x00,  // unit length 5
      0x00, 0x00, 0x00, 0x01, 0x65,
  };
  EXPECT_EQ(Bytes(datagram.begin(), datagram.end()), expected);
}

TEST(CameraWire, DatagramsOfAUnitCarryItsBytesInOrderAndNoneIsEmptyOrTooLong) {
  for (const std::size_t datagram_size : {33U, 100U, 1472U}) {
    const std::size_t first = datagram_size - kHeaderEnd;
    const std::size_t two = first + datagram_size - kWrapperEnd;
    for (const std::size_t length :
         {std::size_t{1}, first, first + 1, two, two + 1, std::size_t{65'535}}) {
      Bytes unit(length);
      std::iota(unit.begin(), unit.end(), std::uint8_t{0});
      Bytes buffer(datagram_size);
      Bytes carried;
      for (std::size_t position = 0; position < UnitDatagramCount(length, datagram_size);
           ++position) {
        const auto datagram = BuildUnitDatagram(unit, position, 0, buffer);
        const auto bytes = datagram.subspan(position == 0 ? kHeaderEnd : kWrapperEnd);
        EXPECT_FALSE(bytes.empty());
        EXPECT_LE(datagram.size(), datagram_size);
        carried.insert(carried.end(), bytes.begin(), bytes.end());
      }
      EXPECT_EQ(carried, unit) << length << " bytes by " << datagram_size;
    }
  }
}

struct Passage {
  std::vector<DatagramFate> fates;
  std::vector<int> arrived;  // numbers of the datagrams, in the order of arrival
  std::size_t bytes_damaged = 0;
};

// Sends numbered datagrams over the link: the number stands in every byte, so that it survives one
// wrong byte.
Passage Send(int datagrams, const FaultRates& rates, std::uint64_t seed) {
  Passage passage;
  DatagramFaults faults(rates, seed);
  const auto arrive = [&](std::span<const std::uint8_t> datagram) {
    const int number = datagram[0] == datagram[1] ? datagram[0] : datagram[2];
    for (const std::uint8_t byte : datagram) {
      passage.bytes_damaged += byte != number ? 1U : 0U;
    }
    passage.arrived.push_back(number);
  };
  for (int number = 0; number < datagrams; ++number) {
    Bytes datagram(8, static_cast<std::uint8_t>(number));
    passage.fates.push_back(faults.Pass(datagram, arrive));
  }
  faults.Flush(arrive);
  return passage;
}

TEST(DatagramFaults, ArrivalsFollowTheRates) {
  struct Row {
    const char* behaviour;
    FaultRates rates;
    std::vector<int> arrived;
  };
  const Row rows[] = {
      {"a good link", {}, {0, 1, 2, 3, 4}},
      {"all lost, and a lost one has no other fault",
       {.loss = 100, .duplicate = 100, .reorder = 100, .corrupt = 100},
       {}},
      {"all twice", {.duplicate = 100}, {0, 0, 1, 1, 2, 2, 3, 3, 4, 4}},
      {"each pair swapped, the last one with nothing after it", {.reorder = 100}, {1, 0, 3, 2, 4}},
      {"late and twice", {.duplicate = 100, .reorder = 100}, {1, 1, 0, 0, 3, 3, 2, 2, 4, 4}},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(Send(5, row.rates, 1).arrived, row.arrived) << row.behaviour;
  }
  EXPECT_EQ(Send(100, {.duplicate = 100, .corrupt = 100}, 1).bytes_damaged, 200U)
      << "exactly one wrong byte in all copies";
}

TEST(DatagramFaults, ARateHitsItsShareAndDoesNotMoveTheOthers) {
  const auto lost = [](const FaultRates& rates) {
    std::string flags;
    for (const DatagramFate& fate : Send(250, rates, 3).fates) {
      flags += fate.lost ? 'x' : '.';
    }
    return flags;
  };
  const std::string plain = lost({.loss = 20});
  EXPECT_EQ(plain, lost({.loss = 20, .duplicate = 50, .corrupt = 50}));
  const auto count = std::ranges::count(plain, 'x');
  EXPECT_TRUE(count > 25 && count < 75) << count;
}

TEST(UnitSchedule, DoesNotDriftOverALongStream) {
  using std::chrono::hours;
  UnitSchedule schedule(30);
  schedule.Start(SteadyTime(hours{5}));
  for (int unit = 0; unit < 30 * 3600; ++unit) {
    schedule.Advance();
  }
  EXPECT_LE(std::chrono::abs(schedule.NextDue() - SteadyTime(hours{6})),
            std::chrono::nanoseconds{1});
}

}  // namespace
}  // namespace kestrelbridge
