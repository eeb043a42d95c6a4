#include "tools/main_app/watch_subcommand.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "tools/common/run_program.h"
#include "tools/common/start_program.h"
#include "tools/common/tool_error.h"
#include "tools/main_app/video_subcommand.h"

namespace kestrelbridge::tools {
namespace {

struct Player {
  std::vector<std::string> command;
  const char* package;
  const char* delay;  // as measured from the ring to the decoded picture; empty: not measured
};

// The best first. A frame rate that the stream does not reach, or no clock at all, lets a player
// show each picture as it comes: with the usual rate it would fall behind whatever came faster.
const std::vector<Player>& Players() {
  static const std::vector<Player> players = {
      {{"mpv", "--profile=low-latency", "--untimed", "--no-cache", "--demuxer-lavf-format=h264",
        "--title=kestrelbridge", "--really-quiet", "-"},
       "mpv",
       ""},
      {{"ffplay", "-loglevel", "error", "-f", "h264", "-framerate", "120", "-probesize", "50000",
        "-fflags", "nobuffer", "-flags", "low_delay", "-framedrop", "-window_title",
        "kestrelbridge", "-"},
       "ffmpeg",
       ", about 0.1 s late"},
      {{"gst-launch-1.0", "-q", "fdsrc", "!", "h264parse", "!", "avdec_h264", "!", "videoconvert",
        "!", "autovideosink", "sync=false"},
       "gstreamer1.0-libav",
       ""},
  };
  return players;
}

struct CommandLine {
  std::string player;
  bool print = false;
};

std::string Joined(const Player& player) {
  std::string line = "kestrelctl video |";
  for (const std::string& word : player.command) {
    line += " " + (word == "!" ? "'!'" : word);
  }
  return line;
}

std::string FromElsewhere() {
  return "On another machine's screen:\n"
         "  ssh THIS-BOX " +
         Joined(Players().at(1)) + "\n  ssh THIS-BOX " + Joined(Players().at(0));
}

const Player& Choose(const std::string& wish) {
  for (const Player& player : Players()) {
    if (wish.empty() ? !FindProgram(player.command[0]).empty() : player.command[0] == wish) {
      return player;
    }
  }
  throw ToolError("no player is installed: sudo apt install mpv (or ffmpeg). " + FromElsewhere());
}

bool IsSet(const char* variable) {
  const char* const value = std::getenv(variable);
  return value != nullptr && value[0] != '\0';
}

// Only mpv draws on a bare console.
bool HasDisplay(const Player& player) {
  return IsSet("DISPLAY") || IsSet("WAYLAND_DISPLAY") ||
         (player.command[0] == "mpv" && access("/dev/dri/card0", R_OK | W_OK) == 0);
}

// The player at one end of a pipe, what `kestrelctl video` writes at the other.
void Play(const Player& player) {
  std::array<int, 2> ends{};
  const int own_output = dup(STDOUT_FILENO);
  if (own_output == -1 || pipe2(ends.data(), O_CLOEXEC) != 0) {
    throw ToolError("no pipe to the player can be had");
  }
  const pid_t process = StartProgram(
      {.command = player.command, .input = ends[0], .output = own_output, .error = STDERR_FILENO});
  close(ends[0]);
  dup2(ends[1], STDOUT_FILENO);
  close(ends[1]);
  const bool stopped = StreamVideoToStandardOutput();
  dup2(own_output, STDOUT_FILENO);  // which closes the pipe: the player sees the end of its input
  close(own_output);
  int status = 0;
  waitpid(process, &status, 0);
  if (!stopped && WIFEXITED(status) && WEXITSTATUS(status) != 0) {
    throw ToolError(player.command[0] + " ended with code " + std::to_string(WEXITSTATUS(status)) +
                    "; --player takes another, --print shows the command");
  }
}

void RunWatch(const CommandLine& line) {
  const Player& player = Choose(line.player);
  if (line.print) {
    std::puts(Joined(player).c_str());
    return;
  }
  if (FindProgram(player.command[0]).empty()) {
    throw ToolError(player.command[0] + " is not installed: sudo apt install " + player.package);
  }
  if (!HasDisplay(player)) {
    throw ToolError("there is no display here: neither DISPLAY nor WAYLAND_DISPLAY is set. " +
                    FromElsewhere());
  }
  std::fprintf(stderr, "watching with %s%s; its window or Ctrl-C ends it\n",
               player.command[0].c_str(), player.delay);
  Play(player);
}

}  // namespace

void AddWatchSubcommand(CLI::App& app) {
  CLI::App* const command = app.add_subcommand(
      "watch", "Shows the live picture in a window, with the best player that is installed");
  const auto line = std::make_shared<CommandLine>();
  std::vector<std::string> names;
  for (const Player& player : Players()) {
    names.push_back(player.command[0]);
  }
  command->add_option("--player", line->player, "This player: mpv, ffplay or gst-launch-1.0")
      ->check(CLI::IsMember(names))
      ->type_name("NAME");
  command->add_flag("--print", line->print, "Show the command instead of running it");
  command->footer(
      "The options of the players are those that show each picture as it comes. The first picture "
      "comes with the next keyframe.\n\n"
      "  kestrelctl watch\n"
      "  kestrelctl watch --player ffplay --print");
  command->callback([line] { RunWatch(*line); });
}

}  // namespace kestrelbridge::tools
