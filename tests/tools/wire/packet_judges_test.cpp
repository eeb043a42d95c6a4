// Judges of what arrives: of the daemon's packets, and of the camera's stream at the phone.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <vector>

#include "camera/packet_format.h"
#include "support/camera_datagrams.h"
#include "tools/phone/phone_stream.h"
#include "tools/wire/packet_check.h"

namespace kestrelbridge::test {
namespace {

template <typename Packet>
Bytes ToBytes(const Packet& packet, std::size_t length) {
  return {packet.begin(), packet.begin() + static_cast<std::ptrdiff_t>(length)};
}

TEST(PacketCheck, KnowsThePacketsOfTheDaemonAndNoneWithAWrongByteOrLength) {
  std::array<std::uint8_t, 14> frame = {0x55, 0x0E, 0x04, 0x66, 0x02, 0x01, 0x00,
                                        0x00, 0x40, 0x02, 0x02, 0x01, 0x00, 0x00};
  SealCommandFrame(frame, 9);
  const struct {
    const char* name;
    tools::PacketType type;
    Bytes bytes;
  } good_packets[] = {
      {"connection request", tools::PacketType::kConnectionRequest,
       ToBytes(BuildConnectionRequest(), kConnectionRequestSize)},
      {"keepalive", tools::PacketType::kKeepalive,
       ToBytes(BuildKeepalive(0x1234, 5), kKeepaliveSize)},
      {"acknowledgement", tools::PacketType::kUnitAcknowledgement,
       ToBytes(BuildUnitAcknowledgement(0x1234), kUnitAcknowledgementSize)},
      {"command", tools::PacketType::kCommand,
       ToBytes(BuildCommandPacket(frame, 3), kSentWrapperSize + frame.size())},
  };
  for (const auto& packet : good_packets) {
    const tools::CheckedPacket checked = tools::CheckPacket(packet.bytes);
    EXPECT_EQ(checked.type, packet.type)
        << packet.name << ": " << (checked.fault != nullptr ? checked.fault : "");
    for (std::size_t offset = 0; offset < packet.bytes.size(); ++offset) {
      Bytes damaged = packet.bytes;
      damaged[offset] ^= 0x10;
      EXPECT_EQ(tools::CheckPacket(damaged).type, tools::PacketType::kBad)
          << packet.name << ", byte " << offset;
      EXPECT_NE(tools::CheckPacket(damaged).fault, nullptr);
    }
    for (std::size_t length = 0; length <= packet.bytes.size() + 1; ++length) {
      Bytes resized = packet.bytes;
      resized.resize(length);
      if (length > kWrapperCheckOffset) {  // even with a length and a check that fit
        resized[0] = static_cast<std::uint8_t>(length);
        resized[kWrapperCheckOffset] = WrapperCheck(resized);
      }
      EXPECT_EQ(tools::CheckPacket(resized).type == tools::PacketType::kBad,
                length != packet.bytes.size())
          << packet.name << ", " << length;
    }
  }
}

TEST(PhoneStream, CountsWhatIsMissingAndWhatComesLate) {
  const struct {
    std::vector<std::uint16_t> sequences;
    std::uint64_t gaps, reordered;
  } rows[] = {{{40'000}, 0, 0},       {{65'534, 65'535, 0, 1}, 0, 0}, {{7, 10, 11}, 2, 0},
              {{65'535, 2, 3}, 2, 0}, {{7, 9, 8, 10}, 1, 1},          {{65'535, 1, 0, 2}, 1, 1},
              {{7, 7, 8}, 0, 1}};
  for (const auto& row : rows) {
    tools::PhoneStream stream;
    for (const std::uint16_t sequence : row.sequences) {
      stream.Take(CommandDataDatagram(sequence, Bytes{1, 2, 3}));
      EXPECT_EQ(stream.Sequence(), sequence);
    }
    EXPECT_EQ(stream.Counters().gaps, row.gaps) << row.sequences[0] << ", " << row.sequences.size();
    EXPECT_EQ(stream.Counters().reordered, row.reordered) << row.sequences[0];
    EXPECT_EQ(stream.Counters().command_data, row.sequences.size());
  }
}

TEST(PhoneStream, AUnitIsWholeOnlyWithAllItsDatagrams) {
  const struct {
    std::vector<std::size_t> lost;  // datagrams of a unit of four that another unit follows
    std::uint64_t units, broken;
  } rows[] = {{{}, 2, 0}, {{0}, 1, 0}, {{2}, 1, 1}, {{3}, 1, 1}, {{0, 1, 2, 3}, 1, 0}};
  const Bytes first = MakeUnit(5000, 1);
  const Bytes second = MakeUnit(300, 2);
  for (const auto& row : rows) {
    std::vector<Bytes> datagrams = UnitDatagrams(10, first);
    ASSERT_EQ(datagrams.size(), 4U);
    datagrams.push_back(UnitDatagrams(14, second).front());
    tools::PhoneStream stream;
    std::vector<Bytes> units;
    for (std::size_t i = 0; i < datagrams.size(); ++i) {
      if (std::ranges::count(row.lost, i) == 0) {
        const auto unit = stream.Take(datagrams[i]);
        units.emplace_back(unit.begin(), unit.end());
      }
    }
    std::erase(units, Bytes());
    EXPECT_EQ(stream.Counters().units, row.units);
    EXPECT_EQ(stream.Counters().broken_units, row.broken);
    EXPECT_EQ(units, row.units == 2 ? (std::vector{first, second}) : std::vector(1, second));
  }
}

TEST(PhoneStream, AUnitLongerThanAnnouncedIsBroken) {
  tools::PhoneStream stream;
  stream.Take(UnitHeaderDatagram(1, 100, Bytes(60)));
  EXPECT_TRUE(stream.Take(ContinuationDatagram(2, Bytes(41))).empty());
  EXPECT_EQ(stream.Counters().broken_units, 1U);
  EXPECT_TRUE(stream.Take(UnitHeaderDatagram(3, 0, {})).empty());
  EXPECT_EQ(stream.Take(UnitHeaderDatagram(4, 1, Bytes(1))).size(), 1U);
}

TEST(PhoneStream, DamagedDatagramsAreBadAndNothingElse) {
  const Bytes good = CommandDataDatagram(1, Bytes{1, 2, 3});
  std::vector<Bytes> bad(6, good);
  bad[0].pop_back();    // cut
  bad[1].push_back(0);  // longer than it says
  bad[2][6] ^= 0x03;    // another kind: the check is wrong
  bad[3][7] ^= 0x80;    // wrong check
  bad[4].resize(19);    // shorter than its wrapper
  bad[5] = {};          // empty
  tools::PhoneStream stream;
  for (const Bytes& datagram : bad) {
    EXPECT_TRUE(stream.Take(datagram).empty());
  }
  EXPECT_EQ(stream.Counters().bad_datagrams, bad.size());
  EXPECT_EQ(stream.Counters().datagrams, bad.size());
  EXPECT_EQ(stream.Counters().command_data + stream.Counters().video, 0U);
  stream.Take(CameraDatagram(3, 9, Bytes{1}));
  EXPECT_EQ(stream.Counters().other_kinds, 1U);
}

}  // namespace
}  // namespace kestrelbridge::test
