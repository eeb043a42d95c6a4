// The share between a daemon, a main application and programs at its local sockets: the real
// program, with the test in the place of all others.

#include <sys/stat.h>

#include <csignal>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "share/local_client.h"
#include "support/camera_datagrams.h"
#include "support/child_process.h"
#include "support/peer_socket.h"
#include "support/temporary_folder.h"
#include "tools/common/metrics_reading.h"

namespace kestrelbridge::test {
namespace {

using std::chrono::milliseconds;

const UdpAddress kShare{.host = "127.0.0.1", .port = 5001};
constexpr char kCommand[] = R"(!{"cmd":"iso","param":"400"})";

Bytes BytesOf(std::string_view text) { return {text.begin(), text.end()}; }

// Records of the daemon's three kinds; `number` tells them apart.
Bytes Text(std::uint8_t number) {
  return BytesOf(
      "\x07"
      "battery=" +
      std::to_string(number) + ",");
}
Bytes Status(std::uint8_t number) {
  Bytes record(28, number);
  record[0] = 6;
  record[1] = 0;
  return record;
}
Bytes Histogram(std::uint8_t number) {
  Bytes record(66, number);
  record[0] = 6;
  record[1] = 1;
  return record;
}

struct Stage {
  Stage() { Start(); }

  void Start() {
    share = std::make_unique<ChildProcess>(std::vector<std::string>{
        ProgramPath("kestrelshare"), "--folder", folder.Path(), "--group", ""});
    if (!Eventually([&] { return LocalClient(control()).connected(); })) {
      ADD_FAILURE() << "the share does not listen: " << share->Error();
    }
  }

  std::string telemetry() const { return folder.File("telemetry"); }
  std::string control() const { return folder.File("control"); }

  // A record of the daemon, until the main application has it.
  void Publish(const Bytes& record) {
    ASSERT_TRUE(daemon.Send(record, kShare));
    const auto received = main_app.Receive();
    ASSERT_TRUE(received) << "nothing came";
    EXPECT_EQ(received->bytes, record);
    share_place = received->sender;
  }

  bool DaemonGets(const Bytes& command) {
    const auto received = daemon.Receive();
    return received && received->bytes == command;
  }

  // Until the counter has that value; the file is written once a second.
  bool Counts(const std::string& name, std::uint64_t value, const std::string& label = "") {
    return Eventually([&] {
      const std::string path = folder.File("share.prom");
      return access(path.c_str(), R_OK) == 0 &&
             tools::ReadMetrics(path).Value(name, label).value_or(UINT64_MAX) == value;
    });
  }

  TemporaryFolder folder;
  PeerSocket daemon;
  PeerSocket main_app{{.host = "127.0.0.1", .port = 5000}};
  UdpAddress share_place;  // where the main application answers
  std::unique_ptr<ChildProcess> share;
};

TEST(Share, PassesRecordsToAllAndCommandsOfAllToTheDaemon) {
  Stage stage;
  const LocalClient first(stage.telemetry());
  const LocalClient second(stage.telemetry());
  ASSERT_TRUE(stage.Counts("kestrelbridge_share_consumers", 2));
  for (const Bytes& record : {Text(1), Status(2), Histogram(3), Bytes(9'000, 4), Bytes(1, 0)}) {
    stage.Publish(record);
    EXPECT_EQ(first.Receive(), record);
    EXPECT_EQ(second.Receive(), record);
  }
  ASSERT_TRUE(stage.main_app.Send(BytesOf(kCommand), stage.share_place));
  EXPECT_TRUE(stage.DaemonGets(BytesOf(kCommand)));
  const LocalClient commander(stage.control());
  ASSERT_TRUE(commander.Send(BytesOf(kCommand)));
  EXPECT_TRUE(stage.DaemonGets(BytesOf(kCommand)));
  EXPECT_TRUE(stage.Counts("kestrelbridge_share_commands_total", 1, R"(source="main_app")"));
  EXPECT_TRUE(stage.Counts("kestrelbridge_share_commands_total", 1, R"(source="control")"));
  EXPECT_TRUE(stage.Counts("kestrelbridge_share_records_total", 2, R"(kind="other")"));
  EXPECT_TRUE(stage.Counts("kestrelbridge_share_records_delivered_total", 10));
}

TEST(Share, ALateConsumerGetsTheLatestOfEachKindAtOnce) {
  Stage stage;
  for (const Bytes& record : {Histogram(1), Text(1), Status(1), Bytes(5, 9), Status(2), Text(2)}) {
    stage.Publish(record);
  }
  const LocalClient consumer(stage.telemetry());
  EXPECT_EQ(consumer.Receive(), Text(2));
  EXPECT_EQ(consumer.Receive(), Status(2));
  EXPECT_EQ(consumer.Receive(), Histogram(1));
  EXPECT_TRUE(consumer.Receive(milliseconds{0}).empty());
}

TEST(Share, AConsumerThatDoesNotReadLosesItsOwnRecordsOnly) {
  Stage stage;
  const LocalClient stopped(stage.telemetry());
  const LocalClient reading(stage.telemetry());
  ASSERT_TRUE(stage.Counts("kestrelbridge_share_consumers", 2));
  constexpr int kRecords = 2'000;
  for (int i = 0; i < kRecords; ++i) {
    const Bytes record(1'300, static_cast<std::uint8_t>(i));
    ASSERT_NO_FATAL_FAILURE(stage.Publish(record));
    ASSERT_EQ(reading.Receive(), record);
  }
  int got = 0;
  while (!stopped.Receive(milliseconds{0}).empty()) {
    ++got;
  }
  EXPECT_GT(got, 0);
  EXPECT_LT(got, kRecords);
  EXPECT_TRUE(stage.Counts("kestrelbridge_share_records_dropped_total",
                           static_cast<std::uint64_t>(kRecords - got)));
  stage.Publish(Text(7));
  EXPECT_EQ(stopped.Receive(), Text(7)) << "it reads again";
}

TEST(Share, RefusesWhatIsNoWholeCommandForADaemonThatIsThere) {
  Stage stage;
  const LocalClient commander(stage.control());
  const Bytes longest(9'999, '!');
  const Bytes too_long(10'000, '!');
  ASSERT_TRUE(commander.Send(BytesOf(kCommand)));  // no daemon has been heard
  ASSERT_TRUE(stage.Counts("kestrelbridge_share_commands_refused_total", 1, R"(source="control")"));
  stage.Publish(Text(1));
  ASSERT_TRUE(commander.Send(too_long));
  ASSERT_TRUE(commander.Send(Bytes(100'000, '!')));
  ASSERT_TRUE(stage.main_app.Send({}, stage.share_place));  // would end the daemon
  ASSERT_TRUE(stage.main_app.Send(too_long, stage.share_place));
  const PeerSocket stranger({.host = "127.0.0.2", .port = 0});
  ASSERT_TRUE(stranger.Send(BytesOf("not the main application's"), stage.share_place));
  ASSERT_TRUE(stage.main_app.Send(longest, stage.share_place));
  EXPECT_TRUE(stage.DaemonGets(longest)) << "the first that the daemon gets";
  ASSERT_TRUE(commander.Send(longest));
  EXPECT_TRUE(stage.DaemonGets(longest));
  EXPECT_TRUE(stage.Counts("kestrelbridge_share_commands_refused_total", 3, R"(source="control")"));
  EXPECT_TRUE(
      stage.Counts("kestrelbridge_share_commands_refused_total", 1, R"(source="main_app")"));
}

TEST(Share, TheTelemetrySocketIsReadOnly) {
  Stage stage;
  const LocalClient consumer(stage.telemetry());
  ASSERT_TRUE(stage.Counts("kestrelbridge_share_consumers", 1));
  EXPECT_FALSE(consumer.Send(BytesOf(kCommand)));
  stage.Publish(Text(1));
  EXPECT_EQ(consumer.Receive(), Text(1));
  struct stat status {};
  ASSERT_EQ(stat(stage.telemetry().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0666U);
  ASSERT_EQ(stat(stage.control().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0660U);
}

TEST(Share, ServesTwoHundredAtOnceAndRefusesThoseBeyondTheLimit) {
  Stage stage;
  std::deque<LocalClient> consumers;
  for (int i = 0; i < 200; ++i) {
    ASSERT_TRUE(consumers.emplace_back(stage.telemetry()).connected());
  }
  ASSERT_TRUE(stage.Counts("kestrelbridge_share_consumers", 200));
  stage.Publish(Text(1));
  for (const LocalClient& consumer : consumers) {
    ASSERT_EQ(consumer.Receive(), Text(1));
  }
  while (consumers.size() < 257) {
    consumers.emplace_back(stage.telemetry());
  }
  EXPECT_TRUE(stage.Counts("kestrelbridge_share_connections_refused_total", 1));
  consumers.clear();
  EXPECT_TRUE(stage.Counts("kestrelbridge_share_consumers", 0));
}

TEST(Share, StartsOverWhatAKilledOneLeftAndOverNothingElse) {
  Stage stage;
  const std::vector<std::string> second_command = {ProgramPath("kestrelshare"), "--folder",
                                                   stage.folder.Path(), "--listen", "127.0.0.1:0"};
  ChildProcess second(second_command);
  EXPECT_EQ(second.WaitForExit(), ExitedWith(1));
  EXPECT_NE(second.Error().find("another kestrelshare listens there"), std::string::npos)
      << second.Error();
  const LocalClient consumer(stage.telemetry());
  stage.Publish(Text(1));
  stage.share->Kill(SIGKILL);
  ASSERT_TRUE(stage.share->WaitForExit());
  stage.Start();
  const LocalClient again(stage.telemetry());
  ASSERT_TRUE(stage.Counts("kestrelbridge_share_consumers", 1));
  stage.Publish(Text(2));
  EXPECT_EQ(again.Receive(), Text(2));
  ASSERT_TRUE(stage.main_app.Send(BytesOf(kCommand), stage.share_place));
  EXPECT_TRUE(stage.DaemonGets(BytesOf(kCommand)));
  stage.share->Kill(SIGTERM);
  EXPECT_EQ(stage.share->WaitForExit(), ExitedWith(0));
  EXPECT_NE(access(stage.control().c_str(), F_OK), 0) << "left behind";
  std::FILE* const file = std::fopen(stage.telemetry().c_str(), "w");
  ASSERT_NE(file, nullptr);
  std::fclose(file);
  ChildProcess third(second_command);
  EXPECT_EQ(third.WaitForExit(), ExitedWith(1));
  EXPECT_NE(third.Error().find("is no socket"), std::string::npos) << third.Error();
}

}  // namespace
}  // namespace kestrelbridge::test
