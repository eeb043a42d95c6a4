// Units that are published as soon as they are whole, against units that wait for the next header.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "base/counters.h"
#include "camera/packet_format.h"
#include "kestrelbridge/frame_block.h"
#include "session/camera_stream.h"
#include "support/camera_datagrams.h"
#include "support/peer_socket.h"
#include "tools/camera/clip.h"
#include "video/frame_buffers.h"
#include "video/parameter_set_bits.h"
#include "video/unit_assembly.h"

namespace kestrelbridge::test {
namespace {

using namespace std::chrono_literals;
using Datagrams = std::vector<Bytes>;

Bytes UnitWithPictureSize(std::uint32_t width_in_mbs, std::uint32_t height_in_mbs) {
  BitWriter bits = ParameterSetStart(66);
  const Bytes rest = ParameterSetTail(bits, width_in_mbs, height_in_mbs, true, {}).Bytes();
  Bytes unit = {0, 0, 0, 1, 0x67};
  unit.insert(unit.end(), rest.begin(), rest.end());
  return unit;
}

// What the world sees of a run.
struct Seen {
  std::vector<Bytes> units;    // in the ring
  std::vector<Bytes> packets;  // to the camera
  std::string log;
  std::uint64_t spoiled = 0;
};

class Player {
 public:
  Player() { BeCameraAt(camera_); }

  // From the same state each time.
  Seen Play(const Datagrams& datagrams, bool when_whole) {
    PublishUnitsWhenWhole(false);
    ProcessCameraDatagram(UnitHeaderDatagram(0, 0, {}));
    ProcessCameraDatagram(UnitDatagrams(0, UnitWithPictureSize(10, 10)).front());
    ProcessCameraDatagram(UnitHeaderDatagram(0, 0, {}));
    ExpectPackets();
    EXPECT_EQ(InitFrameBuffers(), 0);
    FrameBlockMapping mapping;
    EXPECT_TRUE(mapping.Open());
    FrameBlockReader reader(mapping.data());
    Seen seen;
    const std::uint64_t spoiled_before = GetCounters().units_spoiled.Value();
    PublishUnitsWhenWhole(when_whole);
    testing::internal::CaptureStderr();
    for (const Bytes& datagram : datagrams) {
      ProcessCameraDatagram(datagram);
      for (Bytes unit; reader.Next(unit);) {
        seen.units.push_back(unit);
      }
      const auto packets = ExpectPackets();
      seen.packets.insert(seen.packets.end(), packets.begin(), packets.end());
    }
    seen.log = testing::internal::GetCapturedStderr();
    seen.spoiled = GetCounters().units_spoiled.Value() - spoiled_before;
    PublishUnitsWhenWhole(false);
    return seen;
  }

 private:
  // All that has been sent, however long it takes.
  std::vector<Bytes> ExpectPackets() {
    std::vector<Bytes> packets;
    for (; received_ < GetCounters().acknowledgements.Value(); ++received_) {
      const auto packet = camera_.Receive();
      EXPECT_TRUE(packet);
      packets.push_back(packet ? packet->bytes : Bytes{});
    }
    EXPECT_FALSE(camera_.Receive(0ms));
    return packets;
  }

  PeerSocket camera_;
  std::uint64_t received_ = GetCounters().acknowledgements.Value();
};

void Append(Datagrams& stream, const Datagrams& more) {
  stream.insert(stream.end(), more.begin(), more.end());
}

Datagrams Recorded() {
  const Bytes clip = tools::ReadClip(KESTRELBRIDGE_CLIP);
  Datagrams stream;
  for (const auto unit : tools::CutClip(clip)) {
    Append(stream, UnitDatagrams(static_cast<std::uint16_t>(stream.size()), unit));
  }
  return stream;
}

// Whole, cut, doubled and mixed up units, some of them no H.264 or without a byte, with all that
// may come in between. The first unit is whole, and the rest tell no picture size: of a spoiled
// unit the two would say so at different times.
Datagrams Random(std::uint32_t seed) {
  std::mt19937 random(seed);
  const auto one_in = [&](std::uint32_t n) { return random() % n == 0; };
  Datagrams stream = UnitDatagrams(1, UnitWithPictureSize(20, 20));
  for (int i = 0; i < 300; ++i) {
    const auto sequence = static_cast<std::uint16_t>(random());
    Bytes unit = MakeUnit(5 + random() % (one_in(20) ? 65'000 : 5'000),
                          static_cast<std::uint32_t>(random()));
    unit[3] = one_in(20) ? 7 : unit[3];
    Datagrams datagrams = UnitDatagrams(sequence, unit, 40 + random() % 1'500);
    if (one_in(20)) {
      datagrams = {UnitHeaderDatagram(sequence, 0, one_in(2) ? unit : Bytes{})};
    }
    for (std::size_t j = 0; j < datagrams.size(); ++j) {
      if (one_in(100)) {
        std::swap(datagrams[j], datagrams.back());
      }
      if (!one_in(200)) {
        stream.push_back(datagrams[j]);
      }
      if (one_in(200)) {
        stream.push_back(datagrams[j]);
      }
      if (one_in(50)) {
        stream.push_back(CommandDataDatagram(sequence, Bytes(random() % 100, 0x55)));
      }
    }
    if (one_in(10)) {
      stream.push_back(ContinuationDatagram(sequence, Bytes(random() % 3, 1)));
    }
    for (int overflow = one_in(50) ? 12 : 0; overflow > 0; --overflow) {
      stream.push_back(ContinuationDatagram(sequence, Bytes(9'000, 1)));
    }
  }
  stream.push_back(UnitHeaderDatagram(1, 0, {}));
  return stream;
}

// The units of `all` without some of them.
bool IsPartOf(const std::vector<Bytes>& part, const std::vector<Bytes>& all) {
  auto at = all.begin();
  return std::ranges::all_of(part, [&](const Bytes& unit) {
    at = std::find(at, all.end(), unit);
    return at != all.end() && at++ != all.end();
  });
}

TEST(EarlyUnits, DifferFromOthersByNothingButTheSpoiledOnes) {
  Player player;
  Datagrams recorded = Recorded();
  recorded.push_back(UnitHeaderDatagram(1, 0, {}));
  for (std::uint32_t seed = 0; seed < 5; ++seed) {
    const Datagrams stream = seed == 0 ? recorded : Random(seed);
    const Seen usual = player.Play(stream, false);
    const Seen early = player.Play(stream, true);
    EXPECT_GT(usual.units.size(), 100U) << seed;
    EXPECT_EQ(early.packets, usual.packets) << seed;
    EXPECT_EQ(early.log, usual.log) << seed;
    EXPECT_TRUE(IsPartOf(usual.units, early.units)) << seed;
    EXPECT_EQ(early.units.size(), usual.units.size() + early.spoiled) << seed;
    EXPECT_EQ(early.spoiled > 0, seed != 0);
    EXPECT_EQ(usual.spoiled, 0U);
  }
}

TEST(EarlyUnits, AppearWithTheDatagramThatCompletesThem) {
  Player player;
  const Bytes small = MakeUnit(100, 1);
  const Bytes large = MakeUnit(5'000, 2);
  const Datagrams large_datagrams = UnitDatagrams(1, large);
  const Datagrams all_but_one(large_datagrams.begin(), large_datagrams.end() - 1);
  const Datagrams header = {UnitHeaderDatagram(9, 0, {})};
  const auto surplus = [](std::size_t size) {
    return Datagrams{ContinuationDatagram(2, Bytes(size, 1))};
  };
  const Bytes other = {0, 0, 1, 0x65, 1, 2};
  const std::string clear = "Clear frame shared memory\n";  // before the first unit
  const struct {
    const char* what;
    std::vector<Datagrams> stream;
    std::vector<Bytes> units;
    std::size_t packets;
    std::string log;
    std::uint64_t spoiled;
  } rows[] = {
      {"header datagram", {UnitDatagrams(1, small)}, {small}, 0, clear, 0},
      {"last datagram", {large_datagrams}, {large}, 0, clear, 0},
      {"one is missing", {all_but_one}, {}, 0, "", 0},
      {"acknowledged with the header", {large_datagrams, header}, {large}, 1, clear, 0},
      {"nothing more", {large_datagrams, surplus(0), header}, {large}, 1, clear, 0},
      {"a byte more", {large_datagrams, surplus(1)}, {large}, 0, clear, 1},
      {"reported with the header",
       {large_datagrams, surplus(1), surplus(1), header},
       {large},
       0,
       clear + "corrupted unit\n",
       1},
      {"no H.264", {UnitDatagrams(1, other), header}, {}, 1, "", 0},
      {"no H.264, spoiled",
       {UnitDatagrams(1, other), surplus(1), header},
       {},
       0,
       "corrupted unit\n",
       0},
      {"picture size first",
       {UnitDatagrams(1, UnitWithPictureSize(30, 40))},
       {UnitWithPictureSize(30, 40)},
       0,
       "Live stream video resolution changed to 480x640\n" + clear,
       0},
  };
  for (const auto& row : rows) {
    Datagrams stream;
    for (const Datagrams& part : row.stream) {
      Append(stream, part);
    }
    const Seen seen = player.Play(stream, true);
    EXPECT_EQ(seen.units, row.units) << row.what;
    EXPECT_EQ(seen.packets.size(), row.packets) << row.what;
    EXPECT_EQ(seen.log, row.log) << row.what;
    EXPECT_EQ(seen.spoiled, row.spoiled) << row.what;
  }
}

// Behind an overflow the same length is reached a second time.
TEST(EarlyUnits, AreNeverPublishedTwice) {
  Player player;
  const Bytes unit = MakeUnit(9'000, 3);
  Datagrams stream = {UnitHeaderDatagram(1, 9'000, unit)};
  for (int i = 0; i < 11; ++i) {
    stream.push_back(ContinuationDatagram(2, unit));
  }
  stream.push_back(UnitHeaderDatagram(3, 0, {}));
  const Seen seen = player.Play(stream, true);
  EXPECT_EQ(seen.units, std::vector<Bytes>{unit});
  EXPECT_EQ(seen.log, "Clear frame shared memory\nvideo buffer overflow\n");
  EXPECT_EQ(seen.packets.size(), 1U);
  EXPECT_EQ(seen.spoiled, 1U);
}

}  // namespace
}  // namespace kestrelbridge::test
