// The road of the camera's datagrams into the ring, piece by piece: scripted datagrams in, units in
// the real shared memory and acknowledgements on a real socket out.

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "base/run_paths.h"
#include "base/text_file.h"
#include "camera/camera_link.h"
#include "camera/packet_format.h"
#include "kestrelbridge/frame_block.h"
#include "session/camera_stream.h"
#include "support/camera_datagrams.h"
#include "support/peer_socket.h"
#include "video/frame_buffers.h"
#include "video/parameter_set_bits.h"

namespace kestrelbridge::test {
namespace {

using namespace std::chrono_literals;

const Bytes kUnit = {0, 0, 0, 1, 0x65, 1, 2, 3, 4, 5};
const Bytes kOtherUnit = {0, 0, 0, 1, 0x41, 9, 8, 7};

class UnitAssembly : public testing::Test {
 protected:
  UnitAssembly() {
    BeCameraAt(camera_);
    testing::internal::CaptureStderr();
    Take(UnitHeaderDatagram(0, 0, {}));  // ends what an earlier test left in progress
    while (camera_.Receive(0ms)) {
    }
    EXPECT_EQ(InitFrameBuffers(), 0);
    EXPECT_TRUE(mapping_.Open());
    reader_.emplace(mapping_.data());
    GetCameraLink().outgoing_packet_counter = 0;
    Log();
  }

  void TearDown() override {
    EXPECT_EQ(camera_.Receive(0ms), std::nullopt) << "an acknowledgement that no test expected";
    EXPECT_EQ(NextUnit(), std::nullopt) << "a unit that no test expected";
    testing::internal::GetCapturedStderr();
  }

  static void Take(const Bytes& datagram) { EXPECT_EQ(ProcessCameraDatagram(datagram), 0); }
  static void TakeUnit(const Bytes& unit, std::size_t datagram_size = 1472) {
    for (const Bytes& datagram : UnitDatagrams(7, unit, datagram_size)) {
      Take(datagram);
    }
  }
  // What makes the unit in progress count as whole; leaves a new unit of `unit` begun.
  static void TakeNextHeader() { TakeUnit(kOtherUnit); }

  std::optional<Bytes> NextUnit() {
    Bytes unit;
    return reader_->Next(unit) ? std::optional(unit) : std::nullopt;
  }

  // True when exactly one acknowledgement with this sequence has been sent.
  bool Acknowledged(std::uint16_t sequence) {
    const auto packet = camera_.Receive();
    const auto expected = BuildUnitAcknowledgement(sequence);
    return packet && packet->bytes == Bytes(expected.begin(), expected.end());
  }

  // What was logged since the last call, but for the clearing of the block by the first unit.
  static std::string Log() {
    std::string log = testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    const std::string clear = "Clear frame shared memory\n";
    if (const auto at = log.find(clear); at != std::string::npos) {
      log.erase(at, clear.size());
    }
    return log;
  }

  PeerSocket camera_;
  FrameBlockMapping mapping_;
  std::optional<FrameBlockReader> reader_;
};

TEST_F(UnitAssembly, PublishesAndAcknowledgesAUnitWhenTheNextHeaderArrives) {
  const Bytes unit = MakeUnit(65'535, 1);
  Take(ContinuationDatagram(1, kUnit));  // of no unit: dropped
  TakeUnit(unit, 100);
  EXPECT_EQ(NextUnit(), std::nullopt);
  TakeNextHeader();
  EXPECT_EQ(NextUnit(), unit);
  EXPECT_TRUE(Acknowledged(7));
  EXPECT_EQ(GetCameraLink().outgoing_packet_counter, 1);
  EXPECT_EQ(Log(), "");
}

TEST_F(UnitAssembly, ReportsAUnitOfAnotherLengthThanItsHeaderSaid) {
  const auto length = static_cast<std::uint16_t>(kUnit.size());
  for (const int difference : {-1, 1}) {
    Take(UnitHeaderDatagram(1, static_cast<std::uint16_t>(length + difference), kUnit));
    TakeUnit(kUnit);
    EXPECT_EQ(Log(), "corrupted unit\n") << difference;
    Take(UnitHeaderDatagram(9, 0, {}));
    EXPECT_EQ(NextUnit(), kUnit) << "the next whole unit is published again";
    EXPECT_TRUE(Acknowledged(9));
  }
}

TEST_F(UnitAssembly, AHeaderThatAnnouncesNothingLeavesNoUnitInProgress) {
  Take(UnitHeaderDatagram(1, 0, {}));
  Take(ContinuationDatagram(2, kUnit));
  Take(UnitHeaderDatagram(3, 0, kUnit));
  EXPECT_EQ(Log(), "");
  Take(ContinuationDatagram(4, kUnit));
  Take(UnitHeaderDatagram(5, 0, {}));
  EXPECT_EQ(Log(), "corrupted unit\n");
}

TEST_F(UnitAssembly, AcknowledgesButDoesNotPublishWhatIsNoAccessUnit) {
  for (const Bytes& unit : std::vector<Bytes>{
           {1}, {0, 0, 0, 1}, {0, 0, 1, 0x65, 1}, {0, 0, 0, 2, 0x65, 1}, {1, 0, 0, 1, 0x67, 1}}) {
    TakeUnit(unit);
    Take(UnitHeaderDatagram(9, 0, {}));
    EXPECT_TRUE(Acknowledged(9));
  }
  EXPECT_EQ(Log(), "");
}

TEST_F(UnitAssembly, DropsDatagramsTooShortForTheirHeaderAndGoesOn) {
  const Bytes header = UnitHeaderDatagram(1, static_cast<std::uint16_t>(kUnit.size()), {});
  TakeUnit(kUnit);
  for (std::size_t length = 0; length < kReceivedWrapperSize; ++length) {
    Take({header.begin(), header.begin() + static_cast<std::ptrdiff_t>(length)});
  }
  for (const std::size_t length : {29U, 30U, 31U}) {  // a unit header by its fixed bytes
    Take({header.begin(), header.begin() + static_cast<std::ptrdiff_t>(length)});
  }
  TakeNextHeader();
  EXPECT_EQ(NextUnit(), kUnit);
  EXPECT_TRUE(Acknowledged(7));
}

TEST_F(UnitAssembly, DropsTheOlderBytesWhenTheStagingBufferOverflows) {
  Take(UnitHeaderDatagram(1, 60'000, {}));
  const Bytes part(9'999, 0x11);
  for (int i = 0; i < 10; ++i) {
    Take(ContinuationDatagram(2, part));
  }
  EXPECT_EQ(Log(), "");
  Take(ContinuationDatagram(3, Bytes(9)));
  EXPECT_EQ(Log(), "") << "99,999 bytes still fit";
  Take(ContinuationDatagram(4, Bytes(1)));
  EXPECT_EQ(Log(), "video buffer overflow\n");
  // The newest bytes are kept, and what the unit announced still holds.
  Take(UnitHeaderDatagram(5, static_cast<std::uint16_t>(kUnit.size()), Bytes(9'990)));
  EXPECT_EQ(Log(), "corrupted unit\n");
  for (int i = 0; i < 9; ++i) {
    Take(ContinuationDatagram(6, Bytes(10'000)));
  }
  Take(ContinuationDatagram(7, kUnit));
  EXPECT_EQ(Log(), "video buffer overflow\n");
  TakeNextHeader();
  EXPECT_EQ(NextUnit(), kUnit);
  EXPECT_TRUE(Acknowledged(7));
}

TEST_F(UnitAssembly, RecordsTheSequenceOfEveryDatagramThatHasOne) {
  const auto sequence_after = [](const Bytes& datagram) {
    Take(datagram);
    return LastReceivedSequence();
  };
  EXPECT_EQ(sequence_after(CameraDatagram(9, 0xABCD, {})), 0xABCD);
  EXPECT_EQ(sequence_after(Bytes(11, 0xFF)), 0xABCD) << "too short to have one";
  EXPECT_EQ(sequence_after(Bytes(12, 0x11)), 0x1111);
  GetCameraLink().command_data_received = false;  // another test may have set it
  Bytes stump = CommandDataDatagram(5, {});
  stump.resize(12);
  EXPECT_EQ(sequence_after(stump), 5);
  EXPECT_TRUE(CameraDataReceived());
}

std::string FileText(const char* path) {
  char text[20];
  ReadTextFile(path, text);
  return text;
}

Bytes UnitWithParameterSet(std::uint8_t nal_header, std::uint32_t width_in_mbs,
                           std::uint32_t height_in_mbs,
                           const std::vector<std::uint32_t>& crop = {}) {
  BitWriter bits = ParameterSetStart(66);
  const Bytes rest = ParameterSetTail(bits, width_in_mbs, height_in_mbs, true, crop).Bytes();
  Bytes unit = {0, 0, 0, 1, nal_header};
  unit.insert(unit.end(), rest.begin(), rest.end());
  return unit;
}

TEST_F(UnitAssembly, FollowsThePictureSizeAndWritesItForTheMainApplication) {
  struct Row {
    Bytes unit;
    std::string width;
    std::string height;
    std::string log;
  };
  const Bytes hd = UnitWithParameterSet(0x67, 80, 45);
  const Bytes cut(hd.begin(), hd.begin() + 8);
  const std::vector<Row> rows = {
      {UnitWithParameterSet(0x68, 80, 45), "", "", ""},  // no parameter set of a sequence
      {cut, "", "", ""},
      {hd, "1280", "720", "Live stream video resolution changed to 1280x720\n"},
      {hd, "1280", "720", ""},
      {UnitWithParameterSet(0x27, 120, 68, {0, 4, 0, 0}), "1920", "1080",
       "Live stream video resolution changed to 1920x1080\n"},   // codes 1912 x 1088
      {UnitWithParameterSet(0x1F, 80, 45), "1920", "1080", ""},  // four bits tell: 15,
      {UnitWithParameterSet(0x17, 40, 30), "640", "480",         // and 7
       "Live stream video resolution changed to 640x480\n"},
      {UnitWithParameterSet(0x67, 120, 68, {0, 0, 0, 4}), "1920", "1080",
       "Live stream video resolution changed to 1920x1080\n"},
      {cut, "1920", "1080", ""},
  };
  for (const Row& row : rows) {
    TakeUnit(row.unit);
    Take(UnitHeaderDatagram(9, 0, {}));
    EXPECT_EQ(NextUnit(), row.unit) << "published whatever its parameter set says";
    EXPECT_TRUE(Acknowledged(9));
    EXPECT_EQ(FileText(kVideoWidthPath), row.width);
    EXPECT_EQ(FileText(kVideoHeightPath), row.height);
    EXPECT_EQ(Log(), row.log);
  }
}

}  // namespace
}  // namespace kestrelbridge::test
