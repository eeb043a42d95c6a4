// The page's commands: what there is, what a request asks for, and whether the telemetry has shown
// it yet. Words and effects are those of the daemon's tables. Time is passed in. One thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/main_app/command_effect.h"
#include "tools/main_app/command_forms.h"

namespace kestrelbridge::console {

using SteadyTime = std::chrono::steady_clock::time_point;

// The member "commands" of hello: every command with its words, as a JSON array.
std::string CommandsJson();

// A request of the page that can be sent, or why it is refused.
struct PageCommand {
  int id = 0;
  tools::CommandRequest request;
  std::string refusal = {};  // for the page; empty: send it
};

// Nothing when the text is no command at all. Whatever it is, nothing is sent that is not one of
// the tables' commands, with one of its words, confirmed where that is asked.
std::optional<PageCommand> ParsePageCommand(std::string_view text);

// {"type":"command",...} for the page.
std::string CommandStateJson(int id, std::string_view state, std::string_view why);

// Commands that wait for their proof.
class CommandDesk {
 public:
  static constexpr std::size_t kMost = 64;
  static constexpr std::chrono::seconds kPatience{3};
  // That a recording stands still takes three text records, which come once a second; histograms go
  // on for three seconds after the camera's last.
  static constexpr std::chrono::seconds kPatienceForAnEnd{6};

  struct Outcome {
    std::uint64_t viewer = 0;
    std::string message;  // for him
  };

  // `before`: the last text record. Returns the ticket under which the command is sent.
  std::uint64_t Open(std::uint64_t viewer, const PageCommand& command,
                     const tools::TelemetryRecord& before, SteadyTime now);

  // What the page is told at once: "pending", or "sent" where telemetry never shows it.
  static std::string FirstState(const PageCommand& command);

  [[nodiscard]] bool IsFull() const { return pending_.size() >= kMost; }
  [[nodiscard]] bool IsIdle() const { return pending_.empty(); }

  std::vector<Outcome> Take(const tools::TelemetryRecord& record);
  std::vector<Outcome> Fail(std::uint64_t ticket, std::string_view why);
  std::vector<Outcome> Expire(SteadyTime now);
  void Forget(std::uint64_t viewer);

 private:
  struct Pending {
    std::uint64_t ticket;
    std::uint64_t viewer;
    int id;
    tools::CommandEffect effect;
    tools::EffectWatch watch;
    SteadyTime deadline;
  };
  std::vector<Pending> pending_;
  std::uint64_t last_ticket_ = 0;
};

}  // namespace kestrelbridge::console
