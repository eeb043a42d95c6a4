// Camera, box and phone, each a host of its own, joined as in the field. The daemon's own rule is
// all that brings the phone's datagrams to it.
//
//     camera                        box                          phone
//   192.168.2.1  ------  192.168.2.20   10.42.0.1  ------  10.42.0.2, default way: the box
//       wlan0                 wlan0     wlan1                 wlan0
//
// The box forwards, but translates nothing by itself. The camera knows its own network only, so it
// has no way to answer the phone.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/byte_order.h"
#include "base/run_paths.h"
#include "camera/packet_format.h"
#include "end_to_end/daemon_stage.h"
#include "tools/camera/clip.h"
#include "tools/wire/packet_check.h"

namespace kestrelbridge::test {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// --- the three hosts
// ------------------------------------------------------------------------------

// iptables and ip live in folders that are root's only.
constexpr char kPath[] = "PATH=/usr/local/sbin:/usr/sbin:/sbin:/usr/local/bin:/usr/bin:/bin";

// "ip netns exec" would mount a new /sys, which not every container allows; nsenter does not. The
// names of the namespaces are files in the sandbox's private /run.
constexpr char kSetUp[] = R"(
on() { nsenter --net=/run/netns/"$@"; }
for host in camera box phone; do
  ip netns add $host
  on $host ip link set lo up
done
ip link add wlan0 netns box type veth peer name wlan0 netns camera
ip link add wlan1 netns box type veth peer name wlan0 netns phone
on camera ip address add 192.168.2.1/24 dev wlan0
on box    ip address add 192.168.2.20/24 dev wlan0
on box    ip address add 10.42.0.1/24 dev wlan1
on phone  ip address add 10.42.0.2/24 dev wlan0
on camera ip link set wlan0 up
on box    ip link set wlan0 up
on box    ip link set wlan1 up
on phone  ip link set wlan0 up
on phone  ip route add default via 10.42.0.1
on box    sh -c 'echo 1 >/proc/sys/net/ipv4/ip_forward'
)";

constexpr char kTearDown[] = "for host in camera box phone; do ip netns del $host; done";

void RunScript(const char* script) {
  ChildProcess shell({"env", kPath, "sh", "-ec", script});
  ASSERT_EQ(shell.WaitForExit(), ExitedWith(0)) << shell.Error();
}

std::string NamespacePath(const std::string& host) { return "/run/netns/" + host; }

// The command, to be run on that host: the process is then the program itself.
std::vector<std::string> OnHost(const std::string& host, const std::vector<std::string>& command) {
  std::vector<std::string> there = {"nsenter", "--net=" + NamespacePath(host), "env", kPath};
  there.insert(there.end(), command.begin(), command.end());
  return there;
}

// While it lives, this thread opens its sockets on that host.
class HostScope {
 public:
  explicit HostScope(const std::string& host) { Enter(Open(NamespacePath(host))); }
  HostScope(const HostScope&) = delete;
  HostScope& operator=(const HostScope&) = delete;
  ~HostScope() { Enter(home_); }

 private:
  static int Open(const std::string& path) { return open(path.c_str(), O_RDONLY | O_CLOEXEC); }
  static void Enter(int network) {
    EXPECT_EQ(setns(network, CLONE_NEWNET), 0);
    close(network);
  }
  const int home_ = Open("/proc/thread-self/ns/net");
};

// An object that opens sockets, made on that host.
template <typename Object, typename... Arguments>
Object MakeOnHost(const std::string& host, Arguments&&... arguments) {
  const HostScope there(host);
  return Object(std::forward<Arguments>(arguments)...);
}

class PhoneNetwork : public testing::Test {
 protected:
  PhoneNetwork() {
    std::ofstream(kAccessPointInterfacePath) << "wlan1\n";
    RunScript(kSetUp);
  }
  ~PhoneNetwork() override {
    RunScript(kTearDown);
    std::filesystem::remove(kAccessPointInterfacePath);
  }

  static std::vector<std::string> DaemonOnBox() { return OnHost("box", DaemonCommand()); }
};

// --- with the real programs
// -----------------------------------------------------------------------

// The first units of the clip, played again and again.
std::string EndlessClip(std::uint64_t units) {
  const Bytes clip = tools::ReadClip(kTestPattern);
  const auto clip_units = tools::SplitAccessUnits(clip);
  std::string stream;
  for (std::uint64_t i = 0; i < units; ++i) {
    const tools::AccessUnit unit = clip_units[static_cast<std::size_t>(i % clip_units.size())];
    stream.append(unit.begin(), unit.end());
  }
  return stream;
}

std::uintmax_t SizeOf(const std::string& path) {
  std::error_code absent;
  const std::uintmax_t size = std::filesystem::file_size(path, absent);
  return absent ? 0 : size;
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
  ChildProcess rules(OnHost("box", {"iptables", "-t", "nat", "-S", "PREROUTING"}));
  EXPECT_EQ(rules.WaitForExit(), ExitedWith(0)) << rules.Error();
  EXPECT_EQ(CountLines(rules.Output(), "-j REDIRECT --to-ports 9004"), 2);
  ChildProcess video(VideoTool(ring_path));
  ASSERT_TRUE(WaitUntilWatching(video));
  // The clip's units have 10,000 bytes on average: 40 Mbit/s.
  ChildProcess camera(OnHost("camera", CameraTool(kTestPattern, 500, {"--loop"}, kCameraPort)));
  ASSERT_TRUE(Eventually([&] { return SizeOf(ring_path) > 0; })) << daemon.Error();

  ChildProcess phone(
      OnHost("phone", Kestrelctl({"phone", "--to", "192.168.2.1:9004", "--output", phone_path})));
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
  EXPECT_TRUE(ReadFile(ring_path) == EndlessClip(units)) << "the ring lost something";
  EXPECT_NE(EndlessClip(units + 1).find(ReadFile(phone_path)), std::string::npos)
      << "the phone lost something";
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
  Bytes datagram = MakeUnit(size + 5, static_cast<std::uint32_t>(size));
  datagram.erase(datagram.begin(), datagram.begin() + 5);
  datagram[0] = mark;
  return datagram;
}

// As the phone sees it.
const UdpAddress kCamera = {.host = kCameraAddress, .port = kCameraPort};

// A socket of the phone; each has a source port of its own.
class PhoneSocket {
 public:
  void Send(const Bytes& datagram) const { EXPECT_TRUE(socket_.Send(datagram, kCamera)); }

  // The camera's next marked datagram, passing over what else it sends; empty when none came.
  Bytes Receive() const {
    while (const auto received = socket_.Receive()) {
      EXPECT_EQ(received->sender, kCamera) << "a phone would not take this for the camera's";
      if (!received->bytes.empty() && received->bytes[0] == kFromCamera) {
        return received->bytes;
      }
    }
    return {};
  }

 private:
  PeerSocket socket_ = MakeOnHost<PeerSocket>("phone", UdpAddress{"10.42.0.2", 0});
};

class ScriptedPhoneNetwork : public PhoneNetwork {
 protected:
  void SetUp() override {
    ASSERT_TRUE(WaitForBridge(daemon_.pid())) << daemon_.Error();
    ASSERT_TRUE(camera_.Connect());
  }

  // Takes one datagram of the phone or packet of the daemon; false when none came in time.
  bool Take(milliseconds patience = Patience()) {
    latest_ = camera_.Receive(patience);
    latest_type_ = tools::PacketType::kBad;
    if (latest_.empty()) {
      return false;
    }
    if (latest_[0] == kFromPhone) {
      ++from_phone_;
      return true;
    }
    const tools::CheckedPacket packet = tools::CheckPacket(latest_);
    EXPECT_NE(packet.type, tools::PacketType::kBad) << packet.fault;
    latest_type_ = packet.type;
    // Every packet of the daemon counts, none of the phone does: its frames carry the count.
    if (!packet.frame.empty()) {
      EXPECT_EQ(LoadLe16(packet.frame, kFrameSequenceOffset), FromDaemon() - 1);
    }
    return true;
  }

  // Takes until a packet of that type has come; "bad": a datagram of the phone.
  bool TakeUntil(tools::PacketType type) {
    while (Take()) {
      if (latest_type_ == type) {
        return true;
      }
    }
    return false;
  }
  bool TakeFromPhone() { return TakeUntil(tools::PacketType::kBad); }

  int FromDaemon() const { return camera_.packets_received() - from_phone_; }

  ChildProcess daemon_{DaemonOnBox()};
  ScriptedCamera camera_ = MakeOnHost<ScriptedCamera>("camera");
  Bytes latest_;
  tools::PacketType latest_type_ = tools::PacketType::kBad;
  int from_phone_ = 0;
};

TEST_F(ScriptedPhoneNetwork,
       DatagramsOfAnySizePassUnchangedBothWaysAndEveryNewPortIsFollowedAtOnce) {
  for (const std::size_t size : {1,    2,    11,   12,   19,   20,   21,   33,   34,   47,    100,
                                 1471, 1472, 1473, 2000, 2945, 5000, 8191, 9998, 9999, 10'000}) {
    const PhoneSocket phone;  // has a port that the daemon does not know
    const Bytes to_camera = Marked(kFromPhone, size);
    phone.Send(to_camera);
    ASSERT_TRUE(TakeFromPhone()) << size;
    ASSERT_TRUE(latest_ == to_camera) << size;
    const Bytes to_phone = Marked(kFromCamera, size);
    camera_.Send(to_phone);
    ASSERT_TRUE(phone.Receive() == to_phone) << size;
  }
  EXPECT_TRUE(daemon_.WaitForLine("DJI MIMO connection found"));
  EXPECT_EQ(CountLines(daemon_.Error(), "DJI MIMO connection found"), 1);
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
  ASSERT_TRUE(TakeUntil(tools::PacketType::kUnitAcknowledgement));
  ASSERT_TRUE(TakeUntil(tools::PacketType::kKeepalive));

  const PhoneSocket phone;
  std::atomic<bool> talking{true};
  std::thread talker([&] {
    while (talking) {
      phone.Send(Marked(kFromPhone, 49));
      std::this_thread::sleep_for(milliseconds{50});
    }
  });
  EXPECT_TRUE(TakeFromPhone() && TakeFromPhone() &&
              TakeFromPhone());  // what was on its way is here
  const int from_daemon = FromDaemon();
  for (const auto end = Clock::now() + milliseconds{2500}; Clock::now() < end;) {
    send_unit();
    EXPECT_TRUE(TakeFromPhone());
  }
  EXPECT_EQ(FromDaemon(), from_daemon) << "the daemon talked, too";
  SendAppText(MakeOnHost<PeerSocket>("box", UdpAddress{.host = "127.0.0.1", .port = 5000}),
              R"(!{"cmd":"record","param":"start"})");
  EXPECT_TRUE(TakeUntil(tools::PacketType::kCommand));
  EXPECT_EQ(FromDaemon(), from_daemon + 1);

  talking = false;
  talker.join();
  const auto left = Clock::now();
  do {
    send_unit();
    Take(milliseconds{20});
  } while (FromDaemon() == from_daemon + 1 && Clock::now() < left + Patience());
  // Seen between one and two seconds after the phone's last datagram; a busy machine takes longer.
  EXPECT_GE(Clock::now() - left, milliseconds{900});
  EXPECT_LT(Clock::now() - left, milliseconds{2'000} + Patience() / 6);
  EXPECT_TRUE(daemon_.WaitForLine("DJI MIMO connection lost"));
  EXPECT_TRUE(TakeUntil(tools::PacketType::kKeepalive));

  phone.Send(Marked(kFromPhone, 49));
  EXPECT_TRUE(daemon_.WaitForLine("DJI MIMO connection found", Patience(), 2));
}

}  // namespace
}  // namespace kestrelbridge::test
