// kestrel-rtsp: the camera's picture for players, by RTSP.

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>

#include "base/log.h"
#include "base/standard_descriptors.h"
#include "gstreamer/rtsp/server.h"
#include "gstreamer/rtsp/user.h"
#include "tools/common/host_port.h"
#include "tools/common/number_option.h"
#include "tools/common/tool_error.h"

namespace {

using kestrelbridge::rtsp::ReadUser;
using kestrelbridge::rtsp::ServerOptions;
using kestrelbridge::tools::ParseHostPort;
using kestrelbridge::tools::ToolError;

constexpr char kDescription[] =
    R"(Shows the camera's live picture to players, by RTSP: rtsp://127.0.0.1:8554/live

It reads the daemon's ring; all viewers share one pipeline. Each starts with a keyframe, by UDP or
over his connection, as he likes; one who is too slow misses pictures, and holds up nobody. There is
nothing but to look: no other path, no recording, no seeking. While no picture comes a player is told
"503 Service Unavailable", and why stands in the log.

Other machines: kestrel-rtsp --listen 0.0.0.0 --password-file FILE
The file's first line is NAME:PASSWORD, and it is not for everybody to read (chmod o= FILE).)";

constexpr char kDefaultPort[] = "8554";
constexpr int kMostViewers = 200;
constexpr int kLongestTimeoutSeconds = 3600;

struct Words {
  std::string listen = "127.0.0.1";
  std::string password_file;
  bool open = false;
};

CLI::Validator AddressValidator() {
  return {[](std::string& text) {
            const bool has_port = text.find(':') != std::string::npos;
            if (!ParseHostPort(has_port ? text : text + ":" + kDefaultPort)) {
              return "\"" + text +
                     "\" is no dotted-decimal address, alone or with a port, such as "
                     "0.0.0.0:8554";
            }
            return std::string();
          },
          ""};
}

void AddOptions(CLI::App& app, Words& words, ServerOptions& options) {
  using kestrelbridge::tools::WholeNumberBetween;
  app.add_option("--listen", words.listen, "where viewers connect; the port is 8554 if not given")
      ->type_name("ADDRESS[:PORT]")
      ->capture_default_str()
      ->check(AddressValidator());
  auto* const password =
      app.add_option("--password-file", words.password_file, "who may look: NAME:PASSWORD")
          ->type_name("FILE");
  app.add_flag("--open", words.open, "everybody who reaches the address may look")
      ->excludes(password);
  app.add_option("--viewers", options.viewers, "at most so many at once")
      ->type_name("NUMBER")
      ->capture_default_str()
      ->check(WholeNumberBetween(1, kMostViewers));
  app.add_option("--timeout", options.session_timeout_s,
                 "seconds after which a viewer who is not heard of is dropped")
      ->type_name("SECONDS")
      ->capture_default_str()
      ->check(WholeNumberBetween(1, kLongestTimeoutSeconds));
  app.set_version_flag("--version", "kestrel-rtsp " KESTRELBRIDGE_VERSION);
}

bool IsThisMachine(const std::string& address) { return address.starts_with("127."); }

void Complete(const Words& words, ServerOptions& options) {
  const std::size_t colon = words.listen.find(':');
  options.address = words.listen.substr(0, colon);
  options.port =
      ParseHostPort(colon == std::string::npos ? words.listen + ":" + kDefaultPort : words.listen)
          ->port;
  if (!words.password_file.empty()) {
    options.user = ReadUser(words.password_file);
  } else if (!words.open && !IsThisMachine(options.address)) {
    throw ToolError("--listen " + words.listen +
                    " shows the picture to other machines: give --password-file FILE, or --open "
                    "when everybody there may look");
  }
}

int Run(int argc, char** argv) {
  CLI::App app(kDescription, "kestrel-rtsp");
  Words words;
  ServerOptions options{.address = {}, .user = {}, .viewers = 20, .session_timeout_s = 30};
  AddOptions(app, words, options);
  CLI11_PARSE(app, argc, argv);
  Complete(words, options);
  kestrelbridge::OpenLog();
  std::signal(SIGPIPE, SIG_IGN);
  kestrelbridge::rtsp::RunServer(options);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  kestrelbridge::OccupyStandardDescriptors();
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kestrel-rtsp: %s\n", error.what());
    return 1;
  }
}
