// Camera, box and phone, each a host of its own, joined as in the field. The daemon's own rule is
// all that brings the phone's datagrams to it.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/byte_order.h"
#include "base/run_paths.h"
#include "camera/packet_format.h"
#include "end_to_end/clip_bench.h"
#include "end_to_end/daemon_bench.h"
#include "support/field_network.h"
#include "tools/annexb.h"
#include "tools/packet_check.h"

namespace kestrelbridge {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// As the phone sees it.
const UdpAddress kCamera = {.host = kCameraAddress, .port = kCameraPort};

class PhoneNetwork : public testing::Test {
 protected:
  PhoneNetwork() { std::ofstream(kAccessPointInterfacePath) << kAccessPointInterface << "\n"; }
  ~PhoneNetwork() override { std::filesystem::remove(kAccessPointInterfacePath); }

  static std::vector<std::string> DaemonOnBox() { return OnHost(kBoxHost, DaemonCommand()); }

  static int RulesOnBox() {
    ChildProcess list(OnHost(kBoxHost, {"iptables", "-t", "nat", "-S", "PREROUTING"}));
    EXPECT_EQ(list.WaitForExit(), ExitedWith(0)) << list.Error();
    return CountLines(list.Output(), "-j REDIRECT --to-ports 9004");
  }

  FieldNetwork network_;
};

// --- with the real programs
// -----------------------------------------------------------------------

constexpr char kClip[] = KESTRELBRIDGE_SOURCE_DIR "/tools/clips/test-pattern-720p30.h264";
// The clip's units have 10,000 bytes on average.
constexpr ClipFormat kFullRate = {"", 40, 500, 120};

// The first units of the clip, played again and again.
std::string EndlessClip(std::uint64_t units) {
  const Bytes clip = ReadFile(kClip);
  const auto clip_units = SplitAccessUnits(clip);
  std::string stream;
  for (std::uint64_t i = 0; i < units; ++i) {
    const AccessUnit unit = clip_units[i % clip_units.size()];
    stream.append(unit.begin(), unit.end());
  }
  return stream;
}

std::string ReadText(const std::string& path) {
  const Bytes bytes = ReadFile(path);
  return {bytes.begin(), bytes.end()};
}

std::uintmax_t SizeOf(const std::string& path) {
  std::error_code absent;
  const std::uintmax_t size = std::filesystem::file_size(path, absent);
  return absent ? 0 : size;
}

std::uint64_t Value(const ChildProcess& tool, const std::string& key) {
  const auto summary = Summary(tool);
  const auto found = summary.find(key);
  EXPECT_NE(found, summary.end()) << key << " is not in:\n" << tool.Output();
  return found == summary.end() ? UINT64_MAX : found->second;
}

void ExpectFlawlessPhone(const ChildProcess& phone) {
  for (const char* fault : {"gaps", "reordered", "foreign_datagrams", "bad_datagrams",
                            "other_kinds", "broken_units", "send_failures"}) {
    EXPECT_EQ(Value(phone, fault), 0U) << fault << " in:\n" << phone.Output() << phone.Error();
  }
  EXPECT_GT(Value(phone, "command_data"), 0U);
  EXPECT_GT(Value(phone, "keepalives_sent"), 1U);
  EXPECT_EQ(Value(phone, "acknowledgements_sent"), Value(phone, "units"));
}

TEST_F(PhoneNetwork, AppAndMainApplicationGetTheWholeStreamAtFullRate) {
  const TemporaryFolder folder;
  const std::string ring_path = folder.File("ring.h264");
  const std::string phone_path = folder.File("phone.h264");
  {
    ChildProcess earlier(DaemonOnBox());  // its rule stays behind
    ASSERT_TRUE(WaitForBridge(earlier.pid())) << earlier.Error();
  }
  ChildProcess daemon(DaemonOnBox());
  ASSERT_TRUE(WaitForBridge(daemon.pid())) << daemon.Error();
  EXPECT_EQ(RulesOnBox(), 2);
  ChildProcess video(VideoTool(ring_path));
  ASSERT_TRUE(WaitUntilWatching(video));
  ChildProcess camera(OnHost(kCameraHost, CameraTool(kClip, kFullRate, {"--loop"})));
  ASSERT_TRUE(Eventually([&] { return SizeOf(ring_path) > 0; })) << daemon.Error();

  ChildProcess phone(OnHost(kPhoneHost, {ProgramPath("kestrelctl"), "phone", "--to",
                                         "192.168.2.1:9004", "--output", phone_path}));
  constexpr std::uintmax_t kTwoSecondsOfVideo = 10'000'000;
  EXPECT_TRUE(Eventually([&] { return SizeOf(phone_path) > kTwoSecondsOfVideo; }));
  phone.Kill(SIGINT);
  ASSERT_EQ(phone.WaitForExit(), ExitedWith(0)) << phone.Error();
  EXPECT_TRUE(daemon.WaitForLine("DJI MIMO connection lost"));
  camera.Kill(SIGINT);
  ASSERT_EQ(camera.WaitForExit(), ExitedWith(0)) << camera.Error();
  EXPECT_EQ(daemon.WaitForExit(), ExitedWith(1));
  video.Kill(SIGINT);
  ASSERT_EQ(video.WaitForExit(), ExitedWith(0)) << video.Error();

  ExpectFlawlessPhone(phone);
  EXPECT_EQ(CountLines(daemon.Error(), "DJI MIMO connection found"), 1);
  EXPECT_EQ(CountLines(daemon.Error(), "corrupted unit"), 0);
  // The last unit stays in the daemon: only the next one's header would show that it is whole.
  const std::uint64_t units = Value(camera, "units_sent") - 1;
  const std::string stream = EndlessClip(units + 1);
  EXPECT_TRUE(ReadText(ring_path) == EndlessClip(units)) << "the ring lost something";
  EXPECT_NE(stream.find(ReadText(phone_path)), std::string::npos) << "the phone lost something";
  EXPECT_EQ(Value(camera, "bad_packets"), 0U) << camera.Output();
  EXPECT_EQ(Value(camera, "foreign_packets"), 0U) << "from another address than the daemon's";
  EXPECT_GE(Value(camera, "keepalives"), Value(phone, "keepalives_sent"));
  // Nearly every unit was acknowledged once: by the daemon alone, or by the phone alone. While one
  // takes over from the other, a unit may see both.
  EXPECT_GE(Value(camera, "acknowledged"), Value(phone, "acknowledgements_sent"));
  EXPECT_LE(Value(camera, "acknowledged"), units + 3);
}

// --- with scripted ends: every datagram is the test's choice
// ------------------------------------------

// Marks that no packet of the daemon and no datagram of the scripted camera begins with.
constexpr std::uint8_t kFromPhone = 'P';
constexpr std::uint8_t kFromCamera = 'C';

Bytes Marked(std::uint8_t mark, std::size_t size) {
  Bytes datagram(size, mark);
  for (std::size_t i = 1; i < size; ++i) {
    datagram[i] = static_cast<std::uint8_t>(i * 7 + size);
  }
  return datagram;
}

bool IsMarked(std::span<const std::uint8_t> datagram, std::uint8_t mark) {
  return !datagram.empty() && datagram[0] == mark;
}

// A socket of the phone; each has a source port of its own.
class PhoneSocket {
 public:
  PhoneSocket() : socket_(MakeOnHost<UdpSocket>(kPhoneHost, UdpAddress{kPhoneAddress, 0})) {}

  void Send(std::span<const std::uint8_t> datagram) const {
    EXPECT_TRUE(socket_.Send(datagram, kCamera));
  }

  // The camera's next marked datagram, passing over what else it sends; empty when none came.
  Bytes Receive(milliseconds patience = Patience()) const {
    while (const auto received = socket_.Receive(patience)) {
      EXPECT_EQ(received->sender, kCamera) << "a phone would not take this for the camera's";
      if (IsMarked(received->bytes, kFromCamera)) {
        return received->bytes;
      }
    }
    return {};
  }

 private:
  UdpSocket socket_;
};

// What the camera gets, told apart.
class CameraTally {
 public:
  explicit CameraTally(ScriptedCamera& camera) : camera_(camera) {}

  // Takes one datagram of the phone or packet of the daemon; false when none came in time.
  bool Take(milliseconds patience = Patience()) {
    latest_ = camera_.Receive(patience);
    if (latest_.empty()) {
      return false;
    }
    if (IsMarked(latest_, kFromPhone)) {
      ++from_phone_;
      latest_type_.reset();
      return true;
    }
    const CheckedPacket packet = CheckPacket(latest_);
    EXPECT_NE(packet.type, PacketType::kBad) << packet.fault;
    latest_type_ = packet.type;
    // Every packet of the daemon counts, none of the phone does: its frames carry the count.
    if (!packet.frame.empty()) {
      EXPECT_EQ(LoadLe16(packet.frame, kFrameSequenceOffset), from_daemon() - 1);
    }
    return true;
  }

  // Takes until a packet of that type has come.
  bool TakeUntil(PacketType type) {
    while (Take()) {
      if (latest_type_ == type) {
        return true;
      }
    }
    return false;
  }

  // Takes until that many more of the phone's datagrams have come.
  bool TakeFromPhone(int count) {
    for (const int enough = from_phone_ + count; from_phone_ < enough;) {
      if (!Take()) {
        return false;
      }
    }
    return true;
  }

  const Bytes& latest() const { return latest_; }
  std::optional<PacketType> latest_type() const { return latest_type_; }  // nothing: the phone's
  int from_daemon() const { return camera_.packets_received() - from_phone_; }

 private:
  ScriptedCamera& camera_;
  Bytes latest_;
  std::optional<PacketType> latest_type_;
  int from_phone_ = 0;
};

class ScriptedPhoneNetwork : public PhoneNetwork {
 protected:
  ScriptedPhoneNetwork()
      : daemon_(DaemonOnBox()), camera_(MakeOnHost<ScriptedCamera>(kCameraHost)), tally_(camera_) {}

  void SetUp() override {
    ASSERT_TRUE(WaitForBridge(daemon_.pid())) << daemon_.Error();
    ASSERT_TRUE(camera_.Connect());
  }

  ChildProcess daemon_;
  ScriptedCamera camera_;
  CameraTally tally_;
};

TEST_F(ScriptedPhoneNetwork, DatagramsOfAnySizePassUnchangedBothWays) {
  std::vector<std::size_t> sizes = {1,    2,    11,   12,   19,   20,   21,   33,   34,    47,
                                    1471, 1472, 1473, 2000, 2945, 8191, 9998, 9999, 10'000};
  for (std::size_t size = 100; size < 10'000; size += 397) {
    sizes.push_back(size);
  }
  const PhoneSocket phone;
  for (const std::size_t size : sizes) {
    const Bytes to_camera = Marked(kFromPhone, size);
    phone.Send(to_camera);
    ASSERT_TRUE(tally_.TakeFromPhone(1)) << size;
    ASSERT_TRUE(tally_.latest() == to_camera) << size;
    const Bytes to_phone = Marked(kFromCamera, size);
    camera_.Send(to_phone);
    ASSERT_TRUE(phone.Receive() == to_phone) << size;
  }
  EXPECT_TRUE(daemon_.WaitForLine("DJI MIMO connection found"));
  EXPECT_EQ(CountLines(daemon_.Error(), "DJI MIMO connection found"), 1);
}

TEST_F(ScriptedPhoneNetwork, APhoneWithAnotherPortIsFollowedAtOnce) {
  const PhoneSocket before;
  before.Send(Marked(kFromPhone, 50));
  ASSERT_TRUE(tally_.TakeFromPhone(1));
  const PhoneSocket after;
  after.Send(Marked(kFromPhone, 60));
  ASSERT_TRUE(tally_.TakeFromPhone(1));
  const Bytes to_phone = Marked(kFromCamera, 1472);
  camera_.Send(to_phone);
  EXPECT_EQ(after.Receive(), to_phone);
  EXPECT_EQ(before.Receive(milliseconds{0}), Bytes{});
  EXPECT_TRUE(daemon_.WaitForLine("DJI MIMO connection found"));
  EXPECT_EQ(CountLines(daemon_.Error(), "DJI MIMO connection found"), 1);
}

// A phone that sends all the time, on a thread of its own.
class TalkingPhone {
 public:
  TalkingPhone() : thread_([this] { Talk(); }) {}
  TalkingPhone(const TalkingPhone&) = delete;
  TalkingPhone& operator=(const TalkingPhone&) = delete;
  ~TalkingPhone() { Leave(); }

  void Leave() {
    talking_ = false;
    if (thread_.joinable()) {
      thread_.join();
    }
  }

 private:
  void Talk() const {
    while (talking_) {
      socket_.Send(Marked(kFromPhone, 49));
      std::this_thread::sleep_for(milliseconds{50});
    }
  }

  PhoneSocket socket_;
  std::atomic<bool> talking_{true};
  std::thread thread_;
};

// The main application on the box, which has been told where the daemon takes commands.
void SendCommandOnBox(std::string_view json) {
  const auto main_application =
      MakeOnHost<UdpSocket>(kBoxHost, UdpAddress{.host = "127.0.0.1", .port = 5000});
  const auto telemetry = main_application.Receive();
  ASSERT_TRUE(telemetry);
  const std::string text = "!" + std::string(json);
  main_application.Send(Bytes(text.begin(), text.end()), telemetry->sender);
}

TEST_F(ScriptedPhoneNetwork, TheDaemonLeavesTheTalkingToThePhoneForAsLongAsItIsThere) {
  RingWatcher ring;
  Bytes unit;
  std::uint32_t units = 0;
  // Its header shows the daemon that the unit before is whole.
  const auto send_unit = [&] {
    const Bytes next = MakeUnit(5000, units++);
    camera_.SendUnit(next);
    ASSERT_TRUE(unit.empty() || ring.Next() == unit) << "the main application lost something";
    unit = next;
  };
  // Alone, the daemon keeps the camera awake and acknowledges.
  camera_.Send(CommandDataDatagram(1, EmptyCommandData()));
  send_unit();
  send_unit();
  ASSERT_TRUE(tally_.TakeUntil(PacketType::kUnitAcknowledgement));
  ASSERT_TRUE(tally_.TakeUntil(PacketType::kKeepalive));

  TalkingPhone phone;
  ASSERT_TRUE(tally_.TakeFromPhone(3));  // what was on its way has arrived
  const int from_daemon = tally_.from_daemon();
  for (const auto end = Clock::now() + milliseconds{2500}; Clock::now() < end;) {
    send_unit();
    ASSERT_TRUE(tally_.TakeFromPhone(1));
  }
  EXPECT_EQ(tally_.from_daemon(), from_daemon) << "the daemon talked, too";
  SendCommandOnBox(R"({"cmd":"record","param":"start"})");
  EXPECT_TRUE(tally_.TakeUntil(PacketType::kCommand));
  EXPECT_EQ(tally_.from_daemon(), from_daemon + 1);

  phone.Leave();
  const auto left = Clock::now();
  do {
    send_unit();
    tally_.Take(milliseconds{20});
  } while (tally_.from_daemon() == from_daemon + 1 && Clock::now() < left + Patience());
  // Seen between one and two seconds after the phone's last datagram; a busy machine takes longer.
  EXPECT_GE(Clock::now() - left, milliseconds{900});
  EXPECT_LT(Clock::now() - left, milliseconds{2'000} + Patience() / 6);
  EXPECT_TRUE(daemon_.WaitForLine("DJI MIMO connection lost"));
  EXPECT_TRUE(tally_.TakeUntil(PacketType::kKeepalive));

  const PhoneSocket again;
  again.Send(Marked(kFromPhone, 49));
  EXPECT_TRUE(daemon_.WaitForLine("DJI MIMO connection found", Patience(), 2));
  ASSERT_TRUE(tally_.TakeFromPhone(1));
  camera_.Send(Marked(kFromCamera, 1000));
  EXPECT_EQ(again.Receive(), Marked(kFromCamera, 1000));

  send_unit();
}

}  // namespace
}  // namespace kestrelbridge
