// Standard output of subcommands that go on and on: lines into a pipe, or a view on a terminal.
#pragma once

#include <string>
#include <vector>

namespace kestrelbridge::tools {

// Standard output. A closed pipe is an end like others, anything else that fails an error.
class Output {
 public:
  // Throws ToolError.
  void Write(const std::string& text);

  [[nodiscard]] bool closed() const { return closed_; }

 private:
  bool closed_ = false;
};

// Whether standard output is a terminal on which a view can be drawn; TERM=dumb is none.
[[nodiscard]] bool HasScreen();

// The view on a terminal, drawn over itself. Where there are more lines than rows, the last row
// says how many. Nothing is drawn before something has arrived.
class Screen {
 public:
  explicit Screen(Output& output) : output_(output) {}
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  void Draw(std::vector<std::string> lines);

  // Leaves the last view where it is.
  void Close();

  [[nodiscard]] bool started() const { return started_; }

 private:
  Output& output_;
  bool started_ = false;
};

}  // namespace kestrelbridge::tools
