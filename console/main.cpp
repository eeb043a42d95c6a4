// kestrelconsole: the picture, the camera's state, its controls and the link, in a browser.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "base/standard_descriptors.h"
#include "console/access.h"
#include "console/server.h"
#include "tools/common/host_port.h"
#include "tools/common/tool_error.h"

namespace {

using kestrelbridge::console::ConsoleOptions;
using kestrelbridge::console::kLongestPassword;
using kestrelbridge::tools::HostPortValidator;
using kestrelbridge::tools::ParseHostPort;
using kestrelbridge::tools::ToolError;

constexpr char kDescription[] =
    R"(Shows in a browser what the box is doing: the live picture, what the camera says of itself, what
the link loses; and has a control for every command.

Reads the daemon's frame ring and counters, and talks to kestrelshare's sockets. It can neither stop
nor slow the daemon.)";

constexpr char kFooter[] =
    "Who listens elsewhere than on 127.0.0.1 lets strangers come: that takes a password, or takes "
    "no\n"
    "commands. On a network that others listen to, the password needs a certificate, too.\n\n"
    "  kestrelconsole\n"
    "  kestrelconsole --listen 0.0.0.0:8080 --password-file /etc/kestrelbridge-console.password";

// The file's first line.
std::string ReadPassword(const std::string& path) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  struct stat status {};
  if (file == -1 || fstat(file, &status) != 0) {
    throw ToolError("--password-file " + path + ": " + std::strerror(errno));
  }
  std::array<char, kLongestPassword + 2> text{};
  const ssize_t length = read(file, text.data(), text.size());
  close(file);
  if ((status.st_mode & S_IRWXO) != 0) {
    throw ToolError("--password-file " + path + ": everybody may read it; chmod o= " + path);
  }
  std::string password(text.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
  password.resize(std::min(password.find_first_of("\r\n"), password.size()));
  if (password.size() < 8 || password.size() > kLongestPassword) {
    throw ToolError("--password-file " + path + ": its first line has " +
                    std::to_string(password.size()) + " characters; a password has 8 to " +
                    std::to_string(kLongestPassword));
  }
  return password;
}

bool IsLoopback(std::uint32_t address) { return (ntohl(address) >> 24) == 127; }

int Run(int argc, char** argv) {
  CLI::App app(kDescription, "kestrelconsole");
  ConsoleOptions options;
  std::string listen = "127.0.0.1:8080";
  std::string password_file;
  app.add_option("--listen", listen, "where browsers come to")
      ->type_name("HOST:PORT")
      ->capture_default_str()
      ->check(HostPortValidator());
  app.add_option("--password-file", password_file,
                 "a file whose first line is the password to sign in with")
      ->type_name("FILE");
  app.add_flag("--view-only", options.view_only, "take no commands");
  app.add_option("--allow-host", options.allowed_hosts,
                 "a further name by which browsers may call this box; may repeat")
      ->type_name("NAME")
      ->allow_extra_args(false);
  auto* const certificate =
      app.add_option("--certificate", options.certificate, "serve by TLS, with this certificate")
          ->type_name("FILE")
          ->check(CLI::ExistingFile);
  auto* const key = app.add_option("--key", options.key, "the certificate's private key")
                        ->type_name("FILE")
                        ->check(CLI::ExistingFile)
                        ->needs(certificate);
  certificate->needs(key);
  app.set_version_flag("--version", "kestrelconsole " KESTRELBRIDGE_VERSION);
  app.footer(kFooter);
  CLI11_PARSE(app, argc, argv);
  options.listen = *ParseHostPort(listen);
  if (!password_file.empty()) {
    options.password = ReadPassword(password_file);
  }
  if (!IsLoopback(options.listen.address) && options.password.empty() && !options.view_only) {
    throw ToolError("--listen " + listen +
                    ": other machines could command the camera; add --password-file or "
                    "--view-only");
  }
  RunConsole(options);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  kestrelbridge::OccupyStandardDescriptors();
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kestrelconsole: %s\n", error.what());
    return 1;
  }
}
