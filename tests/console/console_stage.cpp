#include "console/console_stage.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cstdlib>
#include <span>

#include "base/byte_order.h"
#include "base/run_paths.h"
#include "console/unit_history.h"
#include "share/sockets.h"

namespace kestrelbridge::test {
namespace {

std::vector<std::string> Command(std::vector<std::string> options) {
  std::vector<std::string> command = {ProgramPath("kestrelconsole"), "--listen", "127.0.0.1:0"};
  command.insert(command.end(), options.begin(), options.end());
  return command;
}

bool IsReadable(int descriptor) {
  pollfd waiting = {.fd = descriptor, .events = POLLIN, .revents = 0};
  return poll(&waiting, 1, static_cast<int>(Patience().count())) > 0;
}

share::OwnedDescriptor Accept(int listener) {
  return share::OwnedDescriptor(
      IsReadable(listener) ? accept4(listener, nullptr, nullptr, SOCK_CLOEXEC) : -1);
}

}  // namespace

ConsoleStage::ConsoleStage(std::vector<std::string> options)
    : console(Command(std::move(options))) {
  if (!console.WaitForLine("://127.0.0.1:")) {
    ADD_FAILURE() << "the console does not listen: " << console.Error();
    return;
  }
  const std::string line = console.Output();
  port = static_cast<std::uint16_t>(std::atoi(line.substr(line.rfind(':') + 1).c_str()));
}

FakeShare::FakeShare()
    : telemetry_listener_(share::ListenAt(kShareTelemetryPath, 0666, "")),
      control_listener_(share::ListenAt(kShareControlPath, 0660, "")) {}

FakeShare::~FakeShare() {
  unlink(kShareTelemetryPath);
  unlink(kShareControlPath);
}

void FakeShare::SendText(const std::string& items) {
  if (consumer_.get() == -1) {
    consumer_ = Accept(telemetry_listener_.get());
  }
  const std::string record = "\x07" + items;
  EXPECT_EQ(send(consumer_.get(), record.data(), record.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(record.size()));
}

std::string FakeShare::ReceiveCommand() {
  const share::OwnedDescriptor commander = Accept(control_listener_.get());
  std::array<char, 10'000> text{};
  const ssize_t length =
      IsReadable(commander.get()) ? recv(commander.get(), text.data(), text.size(), 0) : 0;
  return {text.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

std::uint32_t UnitNumber(const Frame& frame) {
  const std::span<const std::uint8_t> bytes(
      reinterpret_cast<const std::uint8_t*>(frame.payload.data()), frame.payload.size());
  if (frame.opcode != kBinaryFrame || bytes.size() < console::kUnitHeaderSize ||
      LoadLe32(bytes, console::kUnitLengthOffset) != bytes.size() - console::kUnitHeaderSize) {
    return 0;
  }
  const auto payload = bytes.subspan(console::kUnitHeaderSize);
  const std::vector<std::uint8_t> unit(payload.begin(), payload.end());
  return IsIntact(unit) ? NumberOf(unit) : 0;
}

bool HasFlag(const Frame& frame, std::uint8_t flag) {
  return frame.payload.size() > console::kUnitFlagsOffset &&
         (static_cast<std::uint8_t>(frame.payload[console::kUnitFlagsOffset]) & flag) != 0;
}

}  // namespace kestrelbridge::test
