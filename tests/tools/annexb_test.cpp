#include "tools/annexb.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tools/clip.h"
#include "tools/tool_error.h"

namespace kestrelbridge {
namespace {

using Bytes = std::vector<std::uint8_t>;

// One NAL unit for each letter, with a 4-byte start code:
//   I P  first slice of an IDR or other picture     i p  further slice of it
//   A B  data partition A (first macroblock), B     U S T E  delimiter, SPS, PPS, SEI
//   N    prefix NAL unit   X  end of sequence       Z  a zero byte more, behind the last NAL unit
// '.' gives the next NAL unit a 3-byte start code.
Bytes Stream(const std::string& letters) {
  Bytes stream;
  bool short_code = false;
  for (const char letter : letters) {
    if (letter == '.' || letter == 'Z') {
      short_code = short_code || letter == '.';
      if (letter == 'Z') {
        stream.push_back(0);
      }
      continue;
    }
    if (!short_code) {
      stream.push_back(0);
    }
    short_code = false;
    stream.insert(stream.end(), {0, 0, 1});
    switch (letter) {
      case 'I':
        stream.insert(stream.end(), {0x65, 0x88, 0x84});
        break;
      case 'i':
        stream.insert(stream.end(), {0x65, 0x40, 0x84});
        break;
      case 'P':
        stream.insert(stream.end(), {0x41, 0x9A, 0x11});
        break;
      case 'p':
        stream.insert(stream.end(), {0x41, 0x5A, 0x11});
        break;
      case 'A':
        stream.insert(stream.end(), {0x42, 0x9A, 0x11});
        break;
      case 'B':
        stream.insert(stream.end(), {0x43, 0x9A, 0x11});
        break;  // first bit set, no address
      case 'U':
        stream.insert(stream.end(), {0x09, 0xF0});
        break;
      case 'S':
        stream.insert(stream.end(), {0x67, 0x42, 0x00, 0x1F});
        break;
      case 'T':
        stream.insert(stream.end(), {0x68, 0xCE});
        break;
      case 'E':
        stream.insert(stream.end(), {0x06, 0x05});
        break;
      case 'N':
        stream.insert(stream.end(), {0x6E, 0x40});
        break;
      case 'X':
        stream.push_back(0x0A);
        break;
      default:
        ADD_FAILURE() << "no NAL unit for " << letter;
    }
  }
  return stream;
}

Bytes Join(const std::vector<AccessUnit>& units) {
  Bytes joined;
  for (const AccessUnit unit : units) {
    joined.insert(joined.end(), unit.begin(), unit.end());
  }
  return joined;
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
    SCOPED_TRACE(row.behaviour);
    const Bytes stream = Stream(row.stream);
    const auto units = SplitAccessUnits(stream);
    ASSERT_EQ(units.size(), row.units.size());
    for (std::size_t number = 0; number < units.size(); ++number) {
      EXPECT_EQ(Bytes(units[number].begin(), units[number].end()), Stream(row.units[number]))
          << "unit " << number;
    }
  }
}

TEST(AnnexB, UnitsTogetherAreTheStreamWhateverItsBytes) {
  std::mt19937 random(1);
  for (int round = 0; round < 500; ++round) {
    Bytes stream(random() % 200);
    for (std::uint8_t& byte : stream) {
      const std::uint8_t often[] = {0x00, 0x00, 0x00, 0x01, 0x01, 0x41, 0x65, 0x09};
      byte = often[random() % std::size(often)];
    }
    const auto units = SplitAccessUnits(stream);
    if (!units.empty()) {
      ASSERT_EQ(Join(units), stream) << "round " << round;
    }
  }
}

TEST(AnnexB, StreamThatEndsInsideAStartCodeOrNalHeaderIsReadToItsEndOnly) {
  const Bytes stream = Stream("STIP");
  for (std::size_t length = 0; length < stream.size(); ++length) {
    const Bytes cut(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(length));
    const auto units = SplitAccessUnits(cut);
    EXPECT_EQ(Join(units), units.empty() ? Bytes() : cut);
  }
}

std::string RefusalOf(std::size_t second_unit_length) {
  Bytes clip = Stream("IP");
  const std::size_t first_length = Stream("I").size();
  clip.resize(first_length + second_unit_length, 0xFF);
  try {
    CutClip(clip);
  } catch (const ToolError& error) {
    return error.what();
  }
  return "";
}

TEST(Clip, UnitThatTheHeaderCannotTellTheLengthOfIsRefusedByNumberAndSize) {
  EXPECT_EQ(RefusalOf(65'535), "");
  const std::string refusal = RefusalOf(65'536);
  EXPECT_NE(refusal.find("unit 1 "), std::string::npos) << refusal;
  EXPECT_NE(refusal.find("65536"), std::string::npos) << refusal;
}

TEST(Clip, FileWithoutAPictureIsRefused) {
  EXPECT_THROW(CutClip(Stream("ST")), ToolError);
  EXPECT_THROW(CutClip(Bytes{}), ToolError);
  EXPECT_THROW(ReadClip("/nonexistent/clip"), ToolError);
  EXPECT_THROW(ReadClip("/"), ToolError);
}

TEST(Clip, UnitsThatWillNotBePublishedAreNamed) {
  const Bytes clip = Stream("I.PP.P");
  EXPECT_EQ(UnitsWithoutLongStartCode(SplitAccessUnits(clip)), (std::vector<std::size_t>{1, 3}));
}

}  // namespace
}  // namespace kestrelbridge
