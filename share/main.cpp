// kestrelshare: telemetry and commands for any number of programs, beside one main application.

#include <arpa/inet.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

#include "base/standard_descriptors.h"
#include "share/relay.h"
#include "tools/common/host_port.h"

namespace {

using kestrelbridge::share::ShareOptions;
using kestrelbridge::tools::HostPortValidator;
using kestrelbridge::tools::ParseHostPort;

constexpr char kDescription[] =
    R"(Shares the daemon's telemetry: passes it on to the main application, unchanged and at once, and
to every program that connects to FOLDER/telemetry; takes commands from both.

The daemon has to send here: kestrelbridge --dst-port=5001. A main application that answers to where
its telemetry comes from notices nothing.

FOLDER/telemetry   SOCK_SEQPACKET, read only, everybody: a record a message, the latest of each kind
                   at once on connecting
FOLDER/control     SOCK_SEQPACKET, for the group: a command a message, such as
                   !{"cmd":"iso","param":"400"}
FOLDER/share.prom  counters, once a second)";

int Run(int argc, char** argv) {
  CLI::App app(kDescription, "kestrelshare");
  std::string listen = "127.0.0.1:5001";
  std::string main_app = "127.0.0.1:5000";
  ShareOptions options{.folder = "/run/kestrelbridge", .group = "kestrelbridge"};
  app.add_option("--listen", listen, "where the daemon sends its telemetry")
      ->type_name("HOST:PORT")
      ->capture_default_str()
      ->check(HostPortValidator());
  app.add_option("--main-app", main_app, "where the main application listens")
      ->type_name("HOST:PORT")
      ->capture_default_str()
      ->check(HostPortValidator());
  app.add_option("--folder", options.folder, "where the sockets and the counters are")
      ->type_name("FOLDER")
      ->capture_default_str();
  app.add_option("--group", options.group, "who may command; empty: this process's group")
      ->type_name("GROUP")
      ->capture_default_str();
  app.set_version_flag("--version", "kestrelshare " KESTRELBRIDGE_VERSION);
  CLI11_PARSE(app, argc, argv);
  options.listen = *ParseHostPort(listen);
  options.main_app = *ParseHostPort(main_app);
  if (options.main_app.port == 0) {
    std::fprintf(stderr, "kestrelshare: --main-app %s: nobody listens on port 0\n",
                 main_app.c_str());
    return 1;
  }
  kestrelbridge::share::RunShare(options);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  kestrelbridge::OccupyStandardDescriptors();
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kestrelshare: %s\n", error.what());
    return 1;
  }
}
