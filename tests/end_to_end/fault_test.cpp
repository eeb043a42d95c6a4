// What can go wrong around the daemon, and what it promises for that case. docs/reliability.md has
// the same rows with what was seen.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <ostream>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/run_paths.h"
#include "base/text_file.h"
#include "camera/packet_format.h"
#include "end_to_end/daemon_stage.h"
#include "end_to_end/flood.h"
#include "kestrelbridge/rc_block.h"
#include "support/mapped_block.h"

namespace kestrelbridge::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

using Command = std::vector<std::string>;

testing::AssertionResult LostItsCamera(ChildProcess& daemon) {
  const auto end = daemon.WaitForExit();
  if (end == ExitedWith(1) && daemon.Error().ends_with("\nCamera connection lost\n")) {
    return testing::AssertionSuccess();
  }
  return testing::AssertionFailure() << testing::PrintToString(end) << ":\n" << daemon.Error();
}

// It may have lost its camera, which is an end that a supervisor mends; it may do nothing else.
void ExpectToServeOrToBeMended(std::optional<DaemonRun>& run, RingWatcher& ring,
                               const Command& command) {
  if (run->daemon.IsRunning() && Serves(*run, ring)) {
    return;
  }
  EXPECT_TRUE(LostItsCamera(run->daemon));
  run.reset();
  run.emplace(command);
  ASSERT_TRUE(run->camera.Connect()) << run->daemon.Error();
  EXPECT_TRUE(Serves(*run, ring));
}

// --- the camera
// -----------------------------------------------------------------------------------

void CameraFallsSilent() {
  DaemonRun run;
  ASSERT_TRUE(run.camera.Connect());
  ASSERT_TRUE(run.daemon.WaitForLine("Camera connection found"));
  const auto before = Clock::now();
  run.camera.FallSilent();
  EXPECT_TRUE(LostItsCamera(run.daemon));
  // Silence is seen between one and two seconds after the last datagram, which came at most one
  // period of our talk before; a busy machine takes longer.
  EXPECT_GE(Clock::now() - before, milliseconds{900});
  EXPECT_LT(Clock::now() - before, milliseconds{2'000} + Patience() / 6);
}

void CameraReturns() {
  std::optional<RingWatcher> reader;
  {
    DaemonRun run;
    ASSERT_TRUE(run.camera.Connect());
    reader.emplace();
    EXPECT_TRUE(Serves(run, *reader));
    EXPECT_TRUE(fs::exists(kVideoWidthPath));
    run.camera.FallSilent();
    EXPECT_TRUE(LostItsCamera(run.daemon));
  }
  DaemonRun run;
  ASSERT_TRUE(run.camera.Connect());
  EXPECT_FALSE(fs::exists(kVideoWidthPath)) << "the size of another picture";
  EXPECT_TRUE(Serves(run, *reader));
  EXPECT_TRUE(fs::exists(kVideoWidthPath));
}

// Its neighbours go on sending: the silence is its own.
void DaemonIsStoppedForAWhile() {
  DaemonRun run;
  ASSERT_TRUE(run.camera.Connect());
  ASSERT_TRUE(run.daemon.WaitForLine("Camera connection found"));
  ASSERT_TRUE(WaitForBridge(run.daemon.pid()));
  std::atomic<bool> talking{true};
  std::thread phone([&] {
    const PeerSocket socket;
    while (talking) {
      socket.Send(Bytes(20), {.host = "127.0.0.1", .port = kPhonePort});
      std::this_thread::sleep_for(milliseconds{50});
    }
  });
  EXPECT_TRUE(run.daemon.WaitForLine("DJI MIMO connection found"));
  for (int stop = 0; stop < 3; ++stop) {
    run.daemon.Kill(SIGSTOP);
    std::this_thread::sleep_for(milliseconds{1'300});
    run.daemon.Kill(SIGCONT);
    EXPECT_TRUE(WaitUntilRead(run.daemon.pid()));
  }
  RingWatcher ring;
  EXPECT_TRUE(Serves(run, ring));
  EXPECT_EQ(CountLines(run.daemon.Error(), "connection lost"), 0) << run.daemon.Error();
  talking = false;
  phone.join();
}

// Kills it while datagrams wait, so that it is at work on one, and its unit not whole.
void KilledInTheMiddleOfAUnit() {
  std::optional<RingWatcher> reader;
  std::set<Bytes> sent;
  const auto expect_whole_units = [&](const Bytes& last) {
    Bytes unit;
    do {
      unit = reader->Next();
      ASSERT_TRUE(sent.contains(unit)) << "a unit of " << unit.size() << " bytes, never sent";
    } while (unit != last);
  };
  for (int round = 0; round < 4; ++round) {
    DaemonRun run;
    ASSERT_TRUE(run.camera.Connect());
    if (!reader) {
      reader.emplace();
    }
    Bytes unit;
    for (int i = 0; i < 3; ++i) {
      sent.insert(unit = NewUnit(20'000));
      run.camera.SendUnit(unit);
    }
    run.camera.SendNextHeader();
    expect_whole_units(unit);
    for (int i = 0; i < 3; ++i) {
      sent.insert(unit = NewUnit(20'000));
      run.camera.SendUnit(unit);
    }
    run.camera.Send(UnitHeaderDatagram(9, 60'000, Bytes(1'000, 7)));
    run.daemon.Kill(SIGKILL);
    EXPECT_EQ(run.daemon.WaitForExit(), (ProcessEnd{.exit_code = -1, .signal = SIGKILL}));
  }
}

// --- shared memory
// --------------------------------------------------------------------------------

void SharedMemoryIsFull(std::uint64_t free_bytes) {
  const int filler = open("/dev/shm/filler", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  const auto used = static_cast<off_t>(fs::space("/dev/shm").available - free_bytes);
  ASSERT_EQ(posix_fallocate(filler, 0, used), 0);
  close(filler);
  ChildProcess daemon(DaemonCommand());
  EXPECT_EQ(daemon.WaitForExit(), ExitedWith(2));
  EXPECT_EQ(CountLines(daemon.Error(), "No space left"), 1) << daemon.Error();
  EXPECT_TRUE(daemon.Error().ends_with("\nFailed to init telemetry buffer\n")) << daemon.Error();
}
void NoRoomForTheRing() { SharedMemoryIsFull(1'000'000); }

void RingHeaderIsOverwritten() {
  DaemonRun run;
  ASSERT_TRUE(run.camera.Connect());
  RingWatcher ring;
  const MappedBlock block(kFrameBlockName);
  ASSERT_TRUE(Serves(run, ring));
  std::mt19937 random(1);
  for (int round = 0; round < 20; ++round) {
    for (std::size_t byte = 0; byte < kFrameBlockHeaderSize; ++byte) {
      block.data()[byte] = static_cast<std::uint8_t>(random());
    }
    if (round % 2 == 0) {  // else the daemon clears the ring, which mends all of it
      StoreShared16(block.data() + kClearRequestOffset, 0, __ATOMIC_RELAXED);
    }
    EXPECT_TRUE(Serves(run, ring)) << "round " << round;
  }
}

void ReaderStalls() {
  constexpr std::uint64_t kUnits = 450;  // twice round the ring and more
  DaemonRun run;
  ASSERT_TRUE(run.camera.Connect());
  FrameBlockMapping mapping;
  ASSERT_TRUE(Eventually([&] { return mapping.Open(); }));
  FrameBlockReader reader(mapping.data());
  Bytes unit;
  run.camera.SendUnit(NewUnit(1000));
  run.camera.SendUnit(NewUnit(1000));
  ASSERT_TRUE(Eventually([&] { return reader.Next(unit); }));
  std::uint64_t acknowledged = 0;
  const auto count_acknowledgements = [&] {
    for (Bytes packet; !(packet = run.camera.Receive(milliseconds{0})).empty();) {
      acknowledged += packet.size() == kUnitAcknowledgementSize ? 1 : 0;
    }
  };
  for (std::uint64_t i = 2; i < kUnits; ++i) {
    run.camera.SendUnit(NewUnit(1000));
    if (i % 20 == 0) {  // no more than fits into the sockets' buffers
      ASSERT_TRUE(WaitUntilRead(run.daemon.pid()));
      count_acknowledgements();
    }
  }
  run.camera.SendNextHeader();
  EXPECT_TRUE(Eventually([&] {
    count_acknowledgements();
    return acknowledged == kUnits;
  })) << acknowledged;
  while (reader.Next(unit)) {
    EXPECT_EQ(unit.size(), 1000U);
  }
  EXPECT_EQ(reader.counters().units, 1U + 100U) << "half of the ring is what a stalled reader gets";
  EXPECT_EQ(reader.counters().units + reader.counters().lost, kUnits) << "nothing is unaccounted";
}

void WaitingReaderIsKilled() {
  DaemonRun run;
  ASSERT_TRUE(run.camera.Connect());
  RingWatcher ring;
  ASSERT_TRUE(Serves(run, ring));
  ChildProcess waiting(VideoTool("/dev/null"));
  ASSERT_TRUE(WaitUntilWatching(waiting));
  waiting.Kill(SIGKILL);
  ASSERT_TRUE(waiting.WaitForExit());
  EXPECT_TRUE(Serves(run, ring));
}

constexpr std::uint8_t kShotId = 0x01;
constexpr std::uint8_t kIsoId = 0x2A;

void RemoteControlBlockIsCut() {
  DaemonRun run;
  ASSERT_TRUE(run.camera.Connect());
  run.camera.Send(CommandDataDatagram(1, EmptyCommandData()));
  const std::string path = std::string("/dev/shm") + kRcBlockName;
  const auto is_whole = [&] {
    std::error_code none;
    return fs::file_size(path, none) == kRcBlockSize;
  };
  ASSERT_TRUE(Eventually(is_whole));
  for (const std::size_t size : {0, 1, 1503}) {
    fs::resize_file(path, size);
    ASSERT_TRUE(Eventually(is_whole)) << "the daemon makes it whole again after " << size;
  }
  EXPECT_TRUE(run.daemon.IsRunning());
  EXPECT_EQ(CountLines(run.daemon.Error(), "cut short or removed"), 1) << "said once";
  const MappedBlock block(kRcBlockName);
  StoreRcChannel(block.data(), kRcIsoNext, 1);
  EXPECT_TRUE(CameraGetsCommand(run.camera, kIsoId));
}

// --- the box
// --------------------------------------------------------------------------------------

// Returns once the daemon has lived through two of its seconds.
void PassTwoSeconds(ScriptedCamera& camera) {
  while (!camera.Receive(milliseconds{0}).empty()) {
  }
  for (int heartbeats = 0; heartbeats < 3;) {
    const Bytes packet = camera.Receive();
    ASSERT_FALSE(packet.empty());
    heartbeats +=
        packet.size() == kKeepaliveSize || packet.size() == kConnectionRequestSize ? 1 : 0;
  }
}

// While it is away, the kernel answers the daemon's telemetry with "port unreachable".
void MainApplicationIsAbsentAndReturns() {
  DaemonRun run;
  ASSERT_TRUE(run.camera.Connect());
  run.camera.Send(CommandDataDatagram(1, EmptyCommandData()));
  for (int visit = 0; visit < 2; ++visit) {
    PassTwoSeconds(run.camera);
    const PeerSocket main_application({.host = "127.0.0.1", .port = 5000});
    SendAppText(main_application, R"(!{"cmd":"shot"})");
    EXPECT_TRUE(CameraGetsCommand(run.camera, kShotId));
  }
}

void ServeAtOnce(const char* log_line = "Camera connection found") {
  DaemonRun run;
  ASSERT_TRUE(run.camera.Connect()) << run.daemon.Error();
  RingWatcher ring;
  EXPECT_TRUE(Serves(run, ring));
  EXPECT_TRUE(run.daemon.WaitForLine("Live stream video resolution changed to 640x480"));
  EXPECT_TRUE(run.daemon.WaitForLine(log_line)) << run.daemon.Error();
}

void PhonePortIsTaken() {
  const PeerSocket phone;
  PeerSocket taken({.host = "0.0.0.0", .port = kPhonePort});
  ServeAtOnce("9004 cannot be had, so no phone app: Address already in use, see ss -ulnp");
  phone.Send(Bytes(20), {.host = "127.0.0.1", .port = kPhonePort});
  EXPECT_TRUE(taken.Receive()) << "the daemon has taken it from its owner";
}

void RemountRun(unsigned long flag) {
  EXPECT_EQ(mount(nullptr, "/run", nullptr, MS_REMOUNT | MS_NOSUID | MS_NODEV | flag, nullptr), 0);
}

void RunIsReadOnly() {
  WriteTextFile(kVideoWidthPath, "1920");
  RemountRun(MS_RDONLY);
  ServeAtOnce();
  RemountRun(0);
  char width[10];
  ReadTextFile(kVideoWidthPath, width);
  EXPECT_STREQ(width, "1920");
}

// The one thread of the process with that name; stops until it goes out of scope (under qemu, which
// has no ptrace, it does not).
class StoppedThread {
 public:
  StoppedThread(pid_t process, const std::string& name) {
    for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
      if (ReadFile(task.path() / "comm") == name + "\n") {
        thread_ = std::stoi(task.path().filename());
      }
    }
    const long seized = ptrace(PTRACE_SEIZE, thread_, nullptr, nullptr);
    if (seized != 0 && errno == ENOSYS) {
      std::puts("an emulator without ptrace: the thread runs on");
      return;
    }
    EXPECT_EQ(seized, 0) << std::strerror(errno);
    EXPECT_EQ(ptrace(PTRACE_INTERRUPT, thread_, nullptr, nullptr), 0) << std::strerror(errno);
    EXPECT_EQ(waitpid(thread_, nullptr, __WALL), thread_) << std::strerror(errno);
  }
  StoppedThread(const StoppedThread&) = delete;
  StoppedThread& operator=(const StoppedThread&) = delete;
  ~StoppedThread() { ptrace(PTRACE_DETACH, thread_, nullptr, nullptr); }

 private:
  pid_t thread_ = -1;
};

// As by a file system that hangs; and before that, something in the file's place that nobody reads.
void MetricsFileTakesForEver() {
  const std::string fifo = std::string(kMetricsPath) + ".tmp";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  DaemonRun run;
  ASSERT_TRUE(WaitForBridge(run.daemon.pid())) << run.daemon.Error();
  ASSERT_TRUE(Eventually([] { return fs::exists(kMetricsPath); }));
  const StoppedThread writer(run.daemon.pid(), "metrics");
  const PeerSocket phone;
  for (int visit = 1; visit <= 2; ++visit) {
    phone.Send(Bytes(20), {.host = "127.0.0.1", .port = kPhonePort});
    EXPECT_TRUE(run.daemon.WaitForLine("DJI MIMO connection found", Patience(), visit));
    EXPECT_TRUE(run.daemon.WaitForLine("DJI MIMO connection lost", Patience(), visit));
  }
}

void RunFolderIsMissing() {
  fs::remove_all("/run/kestrelbridge");
  ServeAtOnce();
}

// --- the clock
// ------------------------------------------------------------------------------------

// The daemon's wall clock: stands still until it is stepped.
class SetClock {
 public:
  SetClock() { Step(std::chrono::seconds{1'700'000'000}); }

  void Step(milliseconds by) {
    now_ms_ += by.count();
    // In one write, in place: the daemon reads it at any moment.
    const int file = open(folder_.File("clock").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_EQ(write(file, &now_ms_, sizeof now_ms_), static_cast<ssize_t>(sizeof now_ms_));
    close(file);
  }

  Command Daemon() const {
    const char* options = std::getenv("ASAN_OPTIONS");
    Command command = {"env", std::string("LD_PRELOAD=") + KESTRELBRIDGE_SET_CLOCK,
                       "KESTRELBRIDGE_TEST_CLOCK=" + folder_.File("clock"),
                       // AddressSanitizer wants to be the first library in the process.
                       std::string("ASAN_OPTIONS=verify_asan_link_order=0:") +
                           (options == nullptr ? "" : options)};
    const Command daemon = DaemonCommandFor(kOtherCameraPort);
    command.insert(command.end(), daemon.begin(), daemon.end());
    return command;
  }

 private:
  TemporaryFolder folder_;
  std::int64_t now_ms_ = 0;
};

// Every step counts as time that has passed; a backward one as nearly the 49 days of the clock's
// round.
void ClockIsStepped(milliseconds step) {
  SetClock clock;
  DaemonRun run(clock.Daemon());
  ASSERT_TRUE(WaitForBridge(run.daemon.pid())) << run.daemon.Error();
  const PeerSocket phone;
  for (int visit = 1; visit <= 2; ++visit) {
    phone.Send(Bytes{1}, {.host = "127.0.0.1", .port = kPhonePort});
    ASSERT_TRUE(run.daemon.WaitForLine("DJI MIMO connection found", Patience(), visit));
    clock.Step(step);
    ASSERT_TRUE(run.daemon.WaitForLine("DJI MIMO connection lost", Patience(), visit));
  }
  ASSERT_TRUE(run.camera.Connect());
  ASSERT_TRUE(run.daemon.WaitForLine("Camera connection found"));
  run.camera.FallSilent();
  PassTwoSeconds(run.camera);
  EXPECT_TRUE(run.daemon.IsRunning()) << "while the clock stands still, no silence is long";
  clock.Step(step);
  EXPECT_TRUE(LostItsCamera(run.daemon));
}
void ClockStepsForward() { ClockIsStepped(std::chrono::hours{1}); }
void ClockStepsBack() { ClockIsStepped(-std::chrono::hours{1}); }

// --- strangers
// ------------------------------------------------------------------------------------

std::vector<Bytes> Garbage(std::uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<Bytes> datagrams(256);
  for (Bytes& datagram : datagrams) {
    datagram.resize(random() % 1472 + 1);
    std::ranges::generate(datagram, [&] { return static_cast<std::uint8_t>(random()); });
  }
  return datagrams;
}

// As many as the machine can; nobody has a hundred thousand a second for long.
void GarbageOnEveryPort() {
  constexpr milliseconds kTime{3'000};
  std::optional<DaemonRun> run(std::in_place);
  ASSERT_TRUE(run->camera.Connect());
  ASSERT_TRUE(WaitForBridge(run->daemon.pid()));
  RingWatcher ring;
  std::vector<std::uint16_t> ports;
  for (const BoundPort& bound : UdpPortsOf(run->daemon.pid())) {
    ports.push_back(bound.port);
  }
  ASSERT_EQ(ports.size(), 4U);
  int sent = 0;
  {
    const Flood first(ports, Garbage(1));
    const Flood second(ports, Garbage(2));
    std::this_thread::sleep_for(kTime);
    sent = first.sent_per_port() + second.sent_per_port();
  }
  EXPECT_GT(sent, 3'000) << "this was no flood";
  EXPECT_TRUE(WaitUntilRead(run->daemon.pid()));  // else there may be no room for the unit yet
  std::uint64_t dropped = 0;
  for (const BoundPort& bound : UdpPortsOf(run->daemon.pid())) {
    dropped += bound.drops;
  }
  std::printf("%lld datagrams a second to each of %zu ports; the daemon took %lld %% of them\n",
              sent * 1000LL / kTime.count(), ports.size(),
              100 - static_cast<long long>(dropped) * 100 / (sent * 4LL + 1));
  ExpectToServeOrToBeMended(run, ring, DaemonCommandFor(kOtherCameraPort));
}

// --- the table
// ------------------------------------------------------------------------------------

struct FaultRow {
  const char* name;
  const char* promise;
  void (*play)();
};
std::ostream& operator<<(std::ostream& out, const FaultRow& row) { return out << row.name; }

// Gives every row an empty /run/kestrelbridge and /dev/shm, also when all run in one program.
class Fault : public testing::TestWithParam<FaultRow> {
 protected:
  void SetUp() override { ForgetEarlierRuns(); }
  void TearDown() override { ForgetEarlierRuns(); }
};

TEST_P(Fault, EndsAsPromised) {
  SCOPED_TRACE(GetParam().promise);
  GetParam().play();
}

const FaultRow kFaults[] = {
    {"CameraFallsSilent", "exit code 1 after one to two seconds", CameraFallsSilent},
    {"CameraReturns", "the next run serves the same readers; nothing old is shown", CameraReturns},
    {"DaemonIsStoppedForAWhile", "no link is lost: what waits in its sockets is no silence",
     DaemonIsStoppedForAWhile},
    {"KilledInTheMiddleOfAUnit", "readers only ever get whole units", KilledInTheMiddleOfAUnit},
    {"NoRoomForTheRing", "exit code 2 and a line that says why", NoRoomForTheRing},
    {"RingHeaderIsOverwritten", "the next unit gets through", RingHeaderIsOverwritten},
    {"ReaderStalls", "the daemon does not wait; the reader loses units and knows how many",
     ReaderStalls},
    {"WaitingReaderIsKilled", "nobody else notices", WaitingReaderIsKilled},
    {"RemoteControlBlockIsCut", "made whole again, said once; the switches work",
     RemoteControlBlockIsCut},
    {"MainApplicationIsAbsentAndReturns", "telemetry and commands go on by themselves",
     MainApplicationIsAbsentAndReturns},
    {"PhonePortIsTaken", "the video does not depend on it", PhonePortIsTaken},
    {"RunIsReadOnly", "the video does not depend on it", RunIsReadOnly},
    {"MetricsFileTakesForEver", "no watchdog depends on it", MetricsFileTakesForEver},
    {"RunFolderIsMissing", "the video does not depend on it", RunFolderIsMissing},
    {"ClockStepsForward", "counts as elapsed time: links are lost", ClockStepsForward},
    {"ClockStepsBack", "counts as elapsed time: links are lost", ClockStepsBack},
    {"GarbageOnEveryPort", "serves as before once it is over", GarbageOnEveryPort},
};
INSTANTIATE_TEST_SUITE_P(Table, Fault, testing::ValuesIn(kFaults),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace kestrelbridge::test
