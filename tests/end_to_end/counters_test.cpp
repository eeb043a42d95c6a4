// Every counter of the daemon moves when it should, and by as much; read from the metrics file.

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "base/run_paths.h"
#include "end_to_end/daemon_stage.h"
#include "tools/common/metrics_reading.h"

namespace kestrelbridge::test {
namespace {

// By short name and label's value, as in "units published".
std::map<std::string, std::uint64_t> ReadCounters() {
  std::map<std::string, std::uint64_t> counters;
  if (!std::filesystem::exists(kMetricsPath)) {
    return counters;
  }
  for (const tools::Metric& metric : tools::ReadMetrics(kMetricsPath).metrics) {
    if (metric.is_counter) {
      std::string key = metric.name.substr(14, metric.name.size() - 20);  // kestrelbridge_, _total
      if (const auto quote = metric.label.find('"'); quote != std::string::npos) {
        key += " " + metric.label.substr(quote + 1, metric.label.size() - quote - 2);
      }
      std::ranges::replace(key, '_', ' ');
      counters[key] = metric.value;
    }
  }
  return counters;
}

UdpAddress LocalPort(std::uint16_t port) { return {.host = "127.0.0.1", .port = port}; }

// The real daemon, and the test as each of its neighbours.
struct Stage {
  ScriptedCamera camera{kOtherCameraPort};
  PeerSocket main_app{LocalPort(5000)};
  PeerSocket phone;
  PeerSocket stranger;
  ChildProcess daemon{DaemonCommandFor(kOtherCameraPort)};
};

enum Comparison { kBy, kByMoreThan };  // more than: it moves by itself, too
struct Movement {
  const char* counter;
  Comparison comparison;
  std::uint64_t by;
  bool IsMet(std::uint64_t moved) const { return comparison == kBy ? moved == by : moved > by; }
};

struct Step {
  const char* action;
  void (*act)(Stage& stage);
  std::vector<Movement> movements;
};

void SendPushes(Stage& stage) {
  Bytes data;
  // By length: two batteries, histogram, status, settings, and one that is no push.
  for (const std::size_t payload : {40, 40, 64, 67, 102, 5}) {
    const Bytes frame = CommandFrame(0x02, 0x80, Bytes(payload));
    data.insert(data.end(), frame.begin(), frame.end());
  }
  data.resize(501);  // enough to be looked at
  stage.camera.Send(CommandDataDatagram(1, data));
}

void SendIncompleteUnit(Stage& stage) {
  const auto datagrams = UnitDatagrams(1, MakeUnit(3000, 2));
  stage.camera.Send(datagrams[0]);
  stage.camera.Send(datagrams[2]);
  stage.camera.SendNextHeader();
}

void OverflowUnit(Stage& stage) {
  stage.camera.SendNextHeader();
  for (int i = 0; i < 11; ++i) {
    stage.camera.Send(ContinuationDatagram(1, Bytes(9'980, 7)));
  }
  stage.camera.SendNextHeader();
}

// The port that is neither the phone's, nor the camera's, nor the one that telemetry comes from.
void SendToSecondEndpoint(Stage& stage) {
  const auto telemetry = stage.main_app.Receive();
  ASSERT_TRUE(telemetry);
  for (const BoundPort& bound : UdpPortsOf(stage.daemon.pid())) {
    if (bound.port != kPhonePort && bound.port != stage.camera.daemon().port &&
        bound.port != telemetry->sender.port) {
      stage.stranger.Send(Bytes(7), LocalPort(bound.port));
    }
  }
}

void TurnRemoteControl(const char* what) {
  ChildProcess rc(Kestrelctl({"rc", what}));
  ASSERT_EQ(rc.WaitForExit(), ExitedWith(0)) << rc.Error();
}

std::string ShotOfLength(std::size_t size) {
  const std::string object = R"({"cmd":"shot"})";
  return "!" + std::string(size - 1 - object.size(), ' ') + object;
}

const Step kSteps[] = {
    {"the camera answers",
     [](Stage& stage) { ASSERT_TRUE(stage.camera.Connect()); },
     {{"links found camera", kBy, 1},
      {"connection requests sent", kByMoreThan, 0},
      {"sent datagrams camera", kByMoreThan, 0},
      {"sent bytes camera", kByMoreThan, 47},
      {"received datagrams camera", kByMoreThan, 0},
      {"received bytes camera", kByMoreThan, 0},
      {"camera datagrams short", kByMoreThan, 0}}},
    {"a whole unit",
     [](Stage& stage) {
       stage.camera.SendUnit(MakeUnit(3000, 1));
       stage.camera.SendNextHeader();
     },
     // Four wrappers and two unit headers come with the unit.
     {{"camera datagrams video", kBy, 4},
      {"units published", kBy, 1},
      {"published bytes", kBy, 3'000},
      {"acknowledgements sent", kBy, 1},
      {"received bytes camera", kByMoreThan, 3'103}}},
    {"a unit with a hole",
     SendIncompleteUnit,
     {{"units corrupted", kBy, 1}, {"camera datagrams video", kBy, 3}}},
    {"a unit that is no H.264",
     [](Stage& stage) {
       stage.camera.SendUnit(Bytes(100, 1));
       stage.camera.SendNextHeader();
     },
     {{"camera datagrams video", kBy, 2},
      {"units not published", kBy, 1},
      {"acknowledgements sent", kBy, 1}}},
    {"a video datagram without its whole wrapper",
     [](Stage& stage) {
       Bytes datagram = ContinuationDatagram(1, {});
       datagram.pop_back();
       stage.camera.Send(datagram);
     },
     {{"stray video datagrams", kBy, 1}, {"camera datagrams video", kBy, 1}}},
    {"a unit without an end",
     OverflowUnit,
     {{"camera datagrams video", kBy, 13},
      {"overflows video", kBy, 1},
      {"units corrupted", kBy, 1}}},
    {"a datagram of another kind",
     [](Stage& stage) { stage.camera.Send(CameraDatagram(9, 1, {})); },
     {{"camera datagrams ignored", kBy, 1}}},
    {"pushes",
     SendPushes,
     {{"camera datagrams command data", kBy, 1},
      {"command frames found", kBy, 6},
      {"pushes decoded status", kBy, 1},
      {"pushes decoded settings", kBy, 1},
      {"pushes decoded battery", kBy, 2},
      {"pushes decoded histogram", kBy, 1},
      {"keepalives sent", kByMoreThan, 0},
      {"telemetry records sent text", kByMoreThan, 0},
      {"telemetry records sent status", kByMoreThan, 0},
      {"telemetry records sent histogram", kByMoreThan, 0},
      {"sent datagrams main app", kByMoreThan, 2},
      {"sent bytes main app", kByMoreThan, 83}}},
    {"a command",
     [](Stage& stage) { SendAppText(stage.main_app, R"(!{"cmd":"shot"})"); },
     {{"command frames sent main app", kBy, 1},
      {"received datagrams main app", kBy, 1},
      {"received bytes main app", kBy, 15},
      {"links found main app", kBy, 1},
      {"links lost main app", kBy, 1}}},
    // What the text before left in the buffer would make it a command.
    {"a bare marker",
     [](Stage& stage) { SendAppText(stage.main_app, "!"); },
     {{"received datagrams main app", kBy, 1},
      {"received bytes main app", kBy, 1},
      {"app messages ignored", kBy, 1}}},
    {"the longest command",
     [](Stage& stage) { SendAppText(stage.main_app, ShotOfLength(9'999)); },
     {{"received datagrams main app", kBy, 1},
      {"received bytes main app", kBy, 9'999},
      {"command frames sent main app", kBy, 1}}},
    {"a command whose last character does not fit",
     [](Stage& stage) { SendAppText(stage.main_app, ShotOfLength(10'000)); },
     {{"received datagrams main app", kBy, 1},
      {"received bytes main app", kBy, 9'999},
      {"app messages ignored", kBy, 1}}},
    {"an unknown command",
     [](Stage& stage) { SendAppText(stage.main_app, R"(!{"cmd":"dance"})"); },
     {{"received datagrams main app", kBy, 1},
      {"received bytes main app", kBy, 16},
      {"app messages ignored", kBy, 1}}},
    {"a button of the remote control",
     [](Stage&) { TurnRemoteControl("157=1"); },
     {{"command frames sent remote control", kBy, 1}}},
    {"its slider",
     [](Stage& stage) {
       TurnRemoteControl("--slider=1");
       EXPECT_TRUE(CameraGetsCommand(stage.camera, 0x2E, 0x19)) << "+3.0";
     },
     {{"command frames sent remote control", kBy, 1}}},
    {"a phone",
     [](Stage& stage) {
       for (int i = 0; i < 3; ++i) {
         stage.phone.Send(Bytes(20), LocalPort(kPhonePort));
       }
     },
     {{"received datagrams phone", kBy, 3},
      {"received bytes phone", kBy, 60},
      {"relayed datagrams to camera", kBy, 3},
      {"links found phone", kBy, 1},
      {"links lost phone", kBy, 1},
      {"relayed datagrams to phone", kByMoreThan, 0},
      {"sent datagrams phone", kByMoreThan, 0},
      {"sent bytes phone", kByMoreThan, 0}}},
    {"another phone, which takes over twice",
     [](Stage& stage) {
       const PeerSocket other({.host = "127.0.0.2", .port = 0});
       const PeerSocket same_with_another_port;
       for (const PeerSocket* phone : std::initializer_list<const PeerSocket*>{
                &stage.phone, &same_with_another_port, &other, &stage.phone, &other}) {
         phone->Send(Bytes(20), LocalPort(kPhonePort));
       }
       EXPECT_TRUE(
           stage.daemon.WaitForLine("at 127.0.0.2 has taken the stream from the one at "
                                    "127.0.0.1"));
     },
     {{"received datagrams phone", kBy, 5},
      {"received bytes phone", kBy, 100},
      {"relayed datagrams to camera", kBy, 5},
      {"phone peer changes", kBy, 3},
      {"links found phone", kBy, 1},
      {"links lost phone", kBy, 1}}},
    {"a phone elsewhere, once the other has left",
     [](Stage& stage) {
       stage.phone.Send(Bytes(20), LocalPort(kPhonePort));
       ASSERT_TRUE(stage.daemon.WaitForLine("connection found", Patience(), 4));
       EXPECT_EQ(CountLines(stage.daemon.Error(), "has taken the stream"), 1) << "once a minute";
     },
     {{"received datagrams phone", kBy, 1},
      {"received bytes phone", kBy, 20},
      {"relayed datagrams to camera", kBy, 1},
      {"links found phone", kBy, 1},
      {"links lost phone", kBy, 1}}},
    {"a datagram to the second endpoint",
     SendToSecondEndpoint,
     {{"received datagrams main app second", kBy, 1},
      {"received bytes main app second", kBy, 7},
      {"links found main app second", kBy, 1},
      {"links lost main app second", kBy, 1}}},
};

// Moved by the tests below; units spoiled by tests/video/early_units_test.cpp, the overflow of
// command data by tests/app/metrics_test.cpp, dropped lines by tests/base/log_test.cpp.
const std::set<std::string> kMovedElsewhere = {"send failures camera",
                                               "send failures main app",
                                               "send failures phone",
                                               "kernel drops camera",
                                               "kernel drops main app",
                                               "kernel drops phone",
                                               "kernel drops main app second",
                                               "overflows command data",
                                               "units spoiled",
                                               "log lines dropped"};

// By the time, or later than what moved them; no others move but by what is listed.
const std::set<std::string> kMoveByThemselves = {"connection requests sent",
                                                 "keepalives sent",
                                                 "sent datagrams camera",
                                                 "sent bytes camera",
                                                 "received datagrams camera",
                                                 "received bytes camera",
                                                 "camera datagrams short",
                                                 "telemetry records sent text",
                                                 "telemetry records sent status",
                                                 "telemetry records sent histogram",
                                                 "sent datagrams main app",
                                                 "sent bytes main app",
                                                 "links found main app",
                                                 "links lost main app",
                                                 "relayed datagrams to phone",
                                                 "sent datagrams phone",
                                                 "sent bytes phone"};

TEST(Counters, EachMovesByAsMuchAsHappened) {
  ForgetEarlierRuns();
  Stage stage;
  std::set<std::string> moved = kMovedElsewhere;
  std::map<std::string, std::uint64_t> now;
  for (const Step& step : kSteps) {
    auto before = now;
    ASSERT_NO_FATAL_FAILURE(step.act(stage)) << step.action;
    const auto is_met = [&](const Movement& row) {
      return row.IsMet(now[row.counter] - before[row.counter]);
    };
    Eventually([&] {
      now = ReadCounters();
      return std::ranges::all_of(step.movements, is_met);
    });
    for (const auto& [counter, value] : now) {
      const bool is_listed = std::ranges::any_of(
          step.movements, [&](const Movement& row) { return row.counter == counter; });
      EXPECT_TRUE(is_listed || kMoveByThemselves.contains(counter) || value == before[counter])
          << step.action << " moved " << counter << " to " << value;
    }
    for (const Movement& row : step.movements) {
      EXPECT_TRUE(is_met(row)) << step.action << ": " << row.counter << " went from "
                               << before[row.counter] << " to " << now[row.counter];
      moved.insert(row.counter);
    }
  }
  // A second has one text, five status records, and histograms only for a while.
  EXPECT_GT(now["telemetry records sent status"], 3 * now["telemetry records sent text"]);
  EXPECT_LT(now["telemetry records sent histogram"], now["telemetry records sent status"]);
  for (const auto& [counter, value] : now) {
    EXPECT_TRUE(moved.contains(counter)) << "nothing moves " << counter;
  }
  EXPECT_EQ(std::filesystem::status(kMetricsPath).permissions(), std::filesystem::perms(0644));
}

// The links that the gauge says are up, in the file's order.
std::string LinksUp() {
  std::string links;
  if (std::filesystem::exists(kMetricsPath)) {
    for (const tools::Metric& metric : tools::ReadMetrics(kMetricsPath).metrics) {
      if (metric.name == "kestrelbridge_link_up" && metric.value == 1) {
        links += metric.label.substr(6, metric.label.size() - 7) + " ";
      }
    }
  }
  return links;
}

// Until a port is talked to, and for as long as it is, its link is the one that is up.
TEST(Counters, GaugesTellWhichLinksAreUpAndWhenTheDaemonStarted) {
  ForgetEarlierRuns();
  const auto earliest = static_cast<std::uint64_t>(std::time(nullptr));
  Stage stage;
  ASSERT_TRUE(stage.camera.Connect());
  const auto latest = static_cast<std::uint64_t>(std::time(nullptr));
  ASSERT_TRUE(WaitForBridge(stage.daemon.pid()));
  std::vector<std::uint16_t> main_apps;  // its two, in an order that is not known yet
  for (const BoundPort& bound : UdpPortsOf(stage.daemon.pid())) {
    if (bound.port != kPhonePort && bound.port != stage.camera.daemon().port) {
      main_apps.push_back(bound.port);
    }
  }
  const auto up_while_talking_to = [&](const std::vector<std::uint16_t>& ports) {
    return [&stage, ports](const std::string& expected) {
      return Eventually([&] {
        for (const std::uint16_t port : ports) {
          stage.stranger.Send(Bytes{'x'}, LocalPort(port));
        }
        return LinksUp() == expected;
      });
    };
  };
  EXPECT_TRUE(up_while_talking_to({})("camera ")) << LinksUp();
  const auto start = tools::ReadMetrics(kMetricsPath).Value("kestrelbridge_start_time_seconds");
  EXPECT_TRUE(start >= earliest && start <= latest);
  // Both are watched from the start, whether or not there is command data.
  EXPECT_TRUE(up_while_talking_to(main_apps)("camera main_app main_app_second ")) << LinksUp();
  EXPECT_TRUE(up_while_talking_to({})("camera ")) << LinksUp();
  stage.camera.Send(CommandDataDatagram(1, EmptyCommandData()));
  const auto telemetry = stage.main_app.Receive();
  ASSERT_TRUE(telemetry);
  std::erase(main_apps, telemetry->sender.port);
  EXPECT_TRUE(up_while_talking_to(main_apps)("camera main_app_second ")) << LinksUp();
  EXPECT_TRUE(up_while_talking_to({telemetry->sender.port})("camera main_app ")) << LinksUp();
  EXPECT_TRUE(up_while_talking_to({kPhonePort})("camera phone ")) << LinksUp();
}

void ChangeAddress(const char* verb, const char* address) {
  ChildProcess ip({"ip", "address", verb, std::string(address) + "/32", "dev", "lo"});
  ASSERT_EQ(ip.WaitForExit(), ExitedWith(0)) << ip.Error();
}

// Whatever reaches its port counts as the camera's.
void SpeakAsCamera(const PeerSocket& camera, const ChildProcess& daemon) {
  for (const BoundPort& bound : UdpPortsOf(daemon.pid())) {
    if (bound.port != kPhonePort) {
      camera.Send(CommandDataDatagram(1, EmptyCommandData()), LocalPort(bound.port));
    }
  }
}

TEST(Counters, CountWhatCannotBeSent) {
  constexpr char kNowhere[] = "10.9.9.9";  // no route leads there
  constexpr char kPhone[] = "10.7.7.7";    // nor there, once the address is gone
  ForgetEarlierRuns();
  ChildProcess daemon(DaemonCommand({"--host", kNowhere, "--dst-host", kNowhere}));
  ASSERT_TRUE(WaitForBridge(daemon.pid())) << daemon.Error();
  ChangeAddress("add", kPhone);
  const PeerSocket phone({.host = kPhone, .port = 0});
  const PeerSocket camera;
  std::map<std::string, std::uint64_t> counters;
  EXPECT_TRUE(Eventually([&] {
    phone.Send(Bytes(20), {.host = kPhone, .port = kPhonePort});
    ChangeAddress("del", kPhone);
    SpeakAsCamera(camera, daemon);
    ChangeAddress("add", kPhone);
    counters = ReadCounters();
    return counters["send failures camera"] > 0 && counters["send failures main app"] > 0 &&
           counters["send failures phone"] > 0;
  })) << testing::PrintToString(counters);
  ChangeAddress("del", kPhone);
  for (const char* counter :
       {"telemetry records sent text", "telemetry records sent status", "connection requests sent",
        "keepalives sent", "sent datagrams camera", "sent bytes camera", "sent datagrams main app",
        "sent bytes main app", "relayed datagrams to camera"}) {
    EXPECT_EQ(counters[counter], 0U) << counter;
  }
}

TEST(CommandPort, IsFoundInTheMetricsBesideAMainApplication) {
  ForgetEarlierRuns();
  const PeerSocket main_app(LocalPort(5000));
  ChildProcess daemon(DaemonCommandFor(kOtherCameraPort));
  EXPECT_TRUE(Eventually([&] {
    ChildProcess command(Kestrelctl({"command", "iso", "400"}));
    return command.WaitForExit() == ExitedWith(0);
  })) << daemon.Error();
  EXPECT_TRUE(Eventually([] { return ReadCounters()["received datagrams main app"] > 0; }));
}

// The folder of the metrics is made late, and nothing is said of it.
TEST(Counters, CountWhatTheKernelDroppedAndAreWrittenAsSoonAsThereIsAFolder) {
  ForgetEarlierRuns();
  std::filesystem::remove("/run/kestrelbridge");
  ChildProcess daemon(DaemonCommandFor(kOtherCameraPort));  // nobody there, so no link to lose
  ASSERT_TRUE(WaitForBridge(daemon.pid())) << daemon.Error();
  const PeerSocket flood;
  daemon.Kill(SIGSTOP);
  std::uint64_t drops = 0;
  std::uint64_t phone_drops = 0;
  ASSERT_TRUE(Eventually([&] {
    const auto ports = UdpPortsOf(daemon.pid());
    drops = 0;
    for (const BoundPort& bound : ports) {
      const bool is_phones = bound.port == kPhonePort;
      const std::uint64_t wanted = is_phones ? 100 : 1;  // more than the others
      drops += bound.drops;
      phone_drops = is_phones ? bound.drops : phone_drops;
      for (int i = 0; i < 20 && bound.drops < wanted; ++i) {
        flood.Send(Bytes(60'000), LocalPort(bound.port));
      }
    }
    return phone_drops >= 100 &&
           std::ranges::all_of(ports, [](const BoundPort& bound) { return bound.drops > 0; });
  }));
  daemon.Kill(SIGCONT);
  ASSERT_TRUE(WaitUntilRead(daemon.pid()));
  std::filesystem::create_directory("/run/kestrelbridge");
  std::uint64_t counted = 0;
  Eventually([&] {
    SpeakAsCamera(flood, daemon);  // the flood was one
    counted = 0;
    for (const auto& [counter, value] : ReadCounters()) {
      counted += counter.starts_with("kernel drops ") ? value : 0;
    }
    return counted >= drops;
  });
  EXPECT_EQ(counted, drops);
  EXPECT_EQ(ReadCounters()["kernel drops phone"], phone_drops);
  auto counters = ReadCounters();
  for (const char* link : {"camera", "main app", "phone", "main app second"}) {
    EXPECT_GT(counters["kernel drops " + std::string(link)], 0U) << link;
  }
  EXPECT_EQ(daemon.Error().find("metrics"), std::string::npos) << daemon.Error();
}

}  // namespace
}  // namespace kestrelbridge::test
