// kestrelctl as people meet it: on terminals of every width, with words that do not exist, without
// a picture.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kestrelbridge/frame_block.h"
#include "support/camera_datagrams.h"
#include "support/child_process.h"
#include "support/peer_socket.h"
#include "support/temporary_folder.h"
#include "video/frame_buffers.h"

namespace kestrelbridge::test {
namespace {

// What a terminal of that width is shown, without colours, in lines.
std::vector<std::string> Shown(const std::string& words, int width) {
  const std::string program = ProgramPath("kestrelctl");
  ChildProcess terminal(
      {"env", "TERM=xterm", "LC_ALL=C", "script", "-qec",
       "stty cols " + std::to_string(width) + " rows 200; " + program + " " + words, "/dev/null"});
  EXPECT_TRUE(terminal.WaitForExit());
  static const std::regex kHome("\x1b\\[H");  // a view begins anew
  static const std::regex kControls("\x1b\\[[0-9;?]*[A-Za-z]|\r");
  std::istringstream text(
      std::regex_replace(std::regex_replace(terminal.Output(), kHome, "\n"), kControls, ""));
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) {
    lines.push_back(line);
  }
  return lines;
}

void WriteMetrics() {
  std::filesystem::create_directories("/run/kestrelbridge");
  std::ofstream("/run/kestrelbridge/metrics.prom")
      << "# TYPE kestrelbridge_units_total counter\n"
         "kestrelbridge_units_total{outcome=\"published\"} 18446744073709551615\n"
         "# TYPE kestrelbridge_start_time_seconds gauge\nkestrelbridge_start_time_seconds 7\n";
}

TEST(Terminal, NothingIsWiderThanTheWindowAndNoNumberIsLost) {
  const struct {
    const char* words;
    const char* must_show;
  } rows[] = {{"help video", "--duration"},
              {"command --help", "1/8000"},
              {"doctor", "port 9004"},
              {"stats --count 1", "18446744073709551615"},
              {"telemetry --duration 0.5 --listen 127.0.0.1:5999", "antiflicker"}};
  std::atomic<bool> goes_on{true};
  std::thread daemon([&goes_on] {  // for the latter
    const PeerSocket socket;
    for (; goes_on; std::this_thread::sleep_for(std::chrono::milliseconds{20})) {
      socket.Send(std::vector<std::uint8_t>{7, 'i', 's', 'o', ':', '4', '0', '0', ','},
                  {.host = "127.0.0.1", .port = 5999});
    }
  });
  for (const auto& row : rows) {
    for (const int width : {40, 60, 80, 200}) {
      WriteMetrics();
      bool is_shown = false;
      for (const std::string& line : Shown(row.words, width)) {
        is_shown = is_shown || line.find(row.must_show) != line.npos;
        if (!line.starts_with("  kestrelctl ")) {  // to be copied, and so whole
          EXPECT_LE(line.size(), static_cast<std::size_t>(width)) << row.words << ": " << line;
        }
      }
      EXPECT_TRUE(is_shown) << row.words << " at " << width;
    }
  }
  goes_on = false;
  daemon.join();
}

TEST(Terminal, MistakesAreNamedWithWhatMayHaveBeenMeant) {
  const TemporaryFolder folder;
  const std::string mp4 = folder.File("clip.mp4");
  const std::string h265 = folder.File("clip.h265");
  const std::string flight = folder.File("flight.h264");
  std::ofstream(mp4) << std::string(
                            "\0\0\0\x20"
                            "ftypisom",
                            12)
                     << "isomiso2avc1mp41";
  std::ofstream(h265) << std::string("\0\0\0\1\x40\1\x0c\1\0\0\0\1\x26\1\xaf", 15);
  std::ofstream(flight) << "an earlier flight";
  const struct {
    std::vector<std::string> words;
    std::string said;
  } rows[] = {
      {{"vidoe"}, "there is no subcommand \"vidoe\" (did you mean video?)"},
      {{"help", "doktor"}, "(did you mean doctor?)"},
      {{"video", "--stat"}, "--stat is no option of kestrelctl video (did you mean --stats?)"},
      {{"video", "--count", "1e1"}, "\"1e1\" is no whole number"},
      {{"command", "shot", "--rate", "2"}, "--rate requires --repeat"},
      {{"camera", "--listen", "127.0.0.1:0", "--clip", mp4}, "is an MP4 file"},
      {{"camera", "--listen", "127.0.0.1:0", "--clip", h265}, "is H.265"},
      {{"video", "--output", flight}, flight + " exists, and has something in it: --force"},
      {{"watch", "--player", "ffplay"}, "kestrelctl: "},
      {{"video", "--\x1b[2J"}, "--?[2J is no option"},
  };
  for (const auto& row : rows) {
    ChildProcess tool(Kestrelctl(row.words));
    EXPECT_EQ(tool.WaitForExit(), ExitedWith(1)) << row.said;
    EXPECT_TRUE(tool.Error().starts_with("kestrelctl: ")) << tool.Error();
    EXPECT_NE(tool.Error().find(row.said), std::string::npos) << tool.Error();
  }
  EXPECT_EQ(ReadFile(flight), "an earlier flight");
}

TEST(Terminal, JsonIsOutputEverywhereWithATime) {
  ASSERT_EQ(InitFrameBuffers(), 0);
  const struct {
    std::vector<std::string> words;
    std::string part;
  } rows[] = {
      {{"video", "--stats", "--json", "--duration", "3"}, R"("frames_per_second":0.0,)"},
      {{"rc", "--json", "record=0.5"}, R"("channel":139,"name":"record","value":0.5})"},
      {{"rc", "--json"}, R"({"channel":139,"name":"record","value":0.5},)"},
      {{"phone", "--json", "--to", "127.0.0.1:9", "--duration", "3"}, R"(,"datagrams":0,)"},
      {{"stats", "--json", "--count", "1"}, R"("value":18446744073709551615)"},
  };
  for (const auto& row : rows) {
    WriteMetrics();
    ChildProcess tool(Kestrelctl(row.words));
    EXPECT_EQ(tool.WaitForExit(), ExitedWith(0)) << tool.Error();
    EXPECT_GE(CountLines(tool.Output(), row.part), 1) << row.part << tool.Output();
    EXPECT_EQ(CountLines(tool.Output(), "{\"time\":"), CountLines(tool.Output(), ""))
        << tool.Output();
  }
}

TEST(Terminal, ARingThatNobodyWritesIsExplained) {
  shm_unlink(kFrameBlockName);
  ChildProcess nothing(Kestrelctl({"doctor"}));
  EXPECT_EQ(nothing.WaitForExit(), ExitedWith(2));
  EXPECT_NE(nothing.Output().find("frame"), std::string::npos) << nothing.Output();
  ASSERT_EQ(InitFrameBuffers(), 0);  // this process holds it from now on
  std::filesystem::remove("/run/kestrelbridge/metrics.prom");
  ChildProcess video(Kestrelctl({"video", "--stats"}));
  EXPECT_TRUE(
      video.WaitForLine(": a daemon holds the ring, and tells nothing in "
                        "/run/kestrelbridge/metrics.prom"));
  EXPECT_EQ(CountLines(video.Error(), "no access unit for 2 seconds, since "), 1) << video.Error();
  const TemporaryFolder folder;
  ChildProcess recorder(Kestrelctl({"video", "--output", folder.File("a.h264")}));
  EXPECT_TRUE(Eventually([&recorder] {
    PublishVideoUnit(MakeUnit(1000, 1));
    return CountLines(recorder.Error(), "units come, but no keyframe since ") == 1;
  })) << recorder.Error();
  ChildProcess doctor(Kestrelctl({"doctor", "--json"}));
  EXPECT_EQ(doctor.WaitForExit(), ExitedWith(2));
  EXPECT_TRUE(doctor.Output().starts_with("{\"time\":")) << doctor.Output();
  for (const std::string part :
       {R"("worst":"fault")", R"({"check":"units","health":"fault","text":"none: a daemon holds)",
        R"({"check":"ring","health":"ok")"}) {
    EXPECT_NE(doctor.Output().find(part), std::string::npos) << doctor.Output();
  }
}

// The player is a script that keeps what it is given.
TEST(Terminal, WatchFeedsThePlayerUntilItsWindowIsClosed) {
  const TemporaryFolder folder;
  const std::string player = folder.File("mpv");
  const std::string played = folder.File("played");
  std::ofstream(player) << "#!/bin/sh\nexec head -c 1500 >" << played << "\n";
  std::filesystem::permissions(player, std::filesystem::perms::owner_all);
  ASSERT_EQ(InitFrameBuffers(), 0);
  const std::string path =
      "PATH=" + std::filesystem::path(player).parent_path().string() + ":/usr/bin:/bin";
  ChildProcess watch({"env", path, "DISPLAY=:9", ProgramPath("kestrelctl"), "watch"});
  Bytes published;
  EXPECT_TRUE(Eventually([&] {
    const Bytes unit = MakeUnit(1000, 1);
    PublishVideoUnit(unit);
    published.insert(published.end(), unit.begin(), unit.end());
    return !watch.IsRunning();
  })) << watch.Error();
  EXPECT_EQ(watch.WaitForExit(), ExitedWith(0)) << watch.Error();
  EXPECT_TRUE(watch.Error().starts_with("watching with mpv")) << watch.Error();
  EXPECT_EQ(ReadFile(played), std::string(published.begin(), published.begin() + 1500));
}

TEST(Terminal, TheDemoPlaysInNamespacesOfItsOwn) {
  ChildProcess demo(Kestrelctl({"demo", "--seconds", "2"}));
  EXPECT_EQ(demo.WaitForExit(2 * Patience()), ExitedWith(0)) << demo.Output() << demo.Error();
  EXPECT_EQ(CountLines(demo.Output(), "came through, each as the camera sent it"), 1);
  EXPECT_FALSE(std::filesystem::exists("/run/received.h264"));
}

}  // namespace
}  // namespace kestrelbridge::test
