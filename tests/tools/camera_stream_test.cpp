// What the simulated camera sends: units cut from a clip, their datagrams, pushes, a bad link.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "base/byte_order.h"
#include "camera/frame_scanner.h"
#include "tools/annexb.h"
#include "tools/camera_assignment.h"
#include "tools/camera_pushes.h"
#include "tools/camera_wire.h"
#include "tools/clip.h"
#include "tools/datagram_faults.h"
#include "tools/tool_error.h"
#include "tools/unit_schedule.h"

namespace kestrelbridge {
namespace {

using Bytes = std::vector<std::uint8_t>;

// One NAL unit for each letter, with a 4-byte start code:
//   I P  first slice of an IDR or other picture     i p  further slice of it
//   A B  data partition A (first macroblock), B     U S T E  delimiter, SPS, PPS, SEI
//   N    prefix NAL unit   X  end of sequence       Z  a zero byte more, behind the last NAL unit
// '.' gives the next NAL unit a 3-byte start code.
Bytes Stream(std::string_view letters) {
  static const std::map<char, std::string_view> kNalUnits = {
      {'I', "\x65\x88"}, {'i', "\x65\x40"}, {'P', "\x41\x9A"},
      {'p', "\x41\x5A"}, {'A', "\x42\x9A"}, {'B', "\x43\x9A"},  // first bit set, no address
      {'U', "\x09\xF0"}, {'S', "\x67\x42"}, {'T', "\x68\xCE"},
      {'E', "\x06\x05"}, {'N', "\x6E\x40"}, {'X', "\x0A"}};
  Bytes stream;
  for (std::size_t i = 0; i < letters.size(); ++i) {
    if (letters[i] == '.') {
      continue;
    }
    if (i == 0 || letters[i - 1] != '.') {
      stream.push_back(0);
    }
    if (letters[i] != 'Z') {
      const std::string_view nal_unit = kNalUnits.at(letters[i]);
      stream.insert(stream.end(), {0, 0, 1});
      stream.insert(stream.end(), nal_unit.begin(), nal_unit.end());
    }
  }
  return stream;
}

TEST(AnnexB, CutsAStreamWhereAPictureBegins) {
  struct Row {
    const char* behaviour;
    const char* stream;
    std::vector<const char*> units;
  };
  const Row rows[] = {
      {"no bytes, no unit", "", {}},
      {"parameter sets alone are no unit", "ST", {}},
      {"one picture", "STI", {"STI"}},
      {"each first slice opens a unit", "STIPP", {"STI", "P", "P"}},
      {"further slices stay with their picture", "STIiiPppPp", {"STIii", "Ppp", "Pp"}},
      {"a delimiter opens a unit", "USTIUPUP", {"USTI", "UP", "UP"}},
      {"SEI and parameter sets open a unit", "STEIEPTPSTI", {"STEI", "EP", "TP", "STI"}},
      {"a prefix NAL unit opens a unit", "NINP", {"NI", "NP"}},
      {"what ends a sequence belongs to the picture before", "IXSP", {"IX", "SP"}},
      {"partition B does not open a unit", "IABAB", {"I", "AB", "AB"}},
      {"3-byte start codes", ".S.T.I.i.P.p", {".S.T.I.i", ".P.p"}},
      {"a unit takes the zero byte of its own start code only", "IZZP.P", {"IZZ", "P", ".P"}},
      {"leading zeros belong to the first unit", "ZZIP", {"ZZI", "P"}},
      {"what follows the last picture is kept", "IUS", {"I", "US"}},
  };
  for (const Row& row : rows) {
    const Bytes stream = Stream(row.stream);
    const auto units = SplitAccessUnits(stream);
    ASSERT_EQ(units.size(), row.units.size()) << row.behaviour;
    for (std::size_t number = 0; number < units.size(); ++number) {
      EXPECT_EQ(Bytes(units[number].begin(), units[number].end()), Stream(row.units[number]))
          << row.behaviour << ", unit " << number;
    }
  }
}

TEST(AnnexB, UnitsTogetherAreTheStreamWhateverItsBytes) {
  std::mt19937 random(1);
  for (int round = 0; round < 500; ++round) {
    Bytes stream(random() % 200);
    for (std::uint8_t& byte : stream) {
      byte = Bytes{0x00, 0x00, 0x00, 0x01, 0x01, 0x41, 0x65, 0x09}[random() % 8];
    }
    Bytes joined;
    const auto units = SplitAccessUnits(stream);
    for (const AccessUnit unit : units) {
      joined.insert(joined.end(), unit.begin(), unit.end());
    }
    ASSERT_EQ(joined, units.empty() ? Bytes() : stream) << "round " << round;
  }
}

TEST(Clip, WhatTheCameraCannotSendIsRefusedOrNamed) {
  Bytes clip = Stream("IP");
  const std::size_t first_length = Stream("I").size();
  clip.resize(first_length + 65'535, 0xFF);
  EXPECT_NO_THROW(CutClip(clip));
  clip.push_back(0xFF);  // longer than the unit header can tell
  EXPECT_THROW(CutClip(clip), ToolError);
  EXPECT_THROW(CutClip(Stream("ST")), ToolError) << "no picture";
  EXPECT_THROW(ReadClip("/nonexistent/clip"), ToolError);
  const Bytes short_codes = Stream("I.PP.P");
  EXPECT_EQ(UnitsWithoutLongStartCode(SplitAccessUnits(short_codes)),
            (std::vector<std::size_t>{1, 3}));
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

TEST(CameraPushes, FramesOfARunAreNumberedOneByOne) {
  std::uint16_t sequence = 0xFFFE;
  const Bytes pushes = BuildPushes(StartModel({}), Histogram{}, sequence);
  EXPECT_EQ(pushes.size(), kPushesSize);
  std::vector<std::uint16_t> sequences;
  for (auto rest = std::span(pushes); !rest.empty();) {
    const auto frame = CommandFrameAt(rest);
    ASSERT_FALSE(frame.empty());
    sequences.push_back(LoadLe16(frame, 6));
    rest = rest.subspan(frame.size());
  }
  EXPECT_EQ(sequences, (std::vector<std::uint16_t>{0xFFFE, 0xFFFF, 0, 1}));
  EXPECT_EQ(sequence, 2);
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
