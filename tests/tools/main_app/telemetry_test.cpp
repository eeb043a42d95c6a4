// kestrelctl telemetry, run for real: the daemon's own records, and what anybody may send.

#include "state/telemetry.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/peer_socket.h"

namespace kestrelbridge::test {
namespace {

using Datagram = std::vector<std::uint8_t>;

template <typename Record>
Datagram ToDatagram(const Record& record) {
  return {record.begin(), record.end()};
}

TEST(TelemetryCommand, PrintsALinePerRecordIntoAPipeAndEndsAfterItsCount) {
  ChildProcess telemetry(Kestrelctl({"telemetry", "--count", "5"}));
  ASSERT_TRUE(telemetry.WaitForLine("listening on 127.0.0.1:5000"));
  const PeerSocket daemon;
  const std::string evil = "\aa\x1b[2J=\r,";
  const TextRecord text = BuildTextRecord({});
  const auto length = static_cast<std::ptrdiff_t>(text.length);
  for (const Datagram& datagram :
       {Datagram(text.buffer.begin(), text.buffer.begin() + length),
        ToDatagram(BuildStatusRecord({})), ToDatagram(BuildHistogramRecord({})), Datagram{1, 2, 3},
        Datagram(evil.begin(), evil.end()), ToDatagram(BuildStatusRecord({}))}) {
    ASSERT_TRUE(daemon.Send(datagram, {.host = "127.0.0.1", .port = 5000}));
  }
  EXPECT_EQ(telemetry.WaitForExit(), ExitedWith(0));
  const std::string sender = " 127.0.0.1:" + std::to_string(daemon.port()) + " ";
  EXPECT_EQ(CountLines(telemetry.Output(), sender), 5) << telemetry.Output();
  EXPECT_EQ(telemetry.Output().find_first_of("\x1b\r"), std::string::npos);
  for (const std::string line : {"text@camera_detected=0,", "status@", "histogram@0 0 0",
                                 "unknown@3 bytes: 01 02 03", "text@a"}) {
    const std::size_t at = line.find('@');
    EXPECT_EQ(CountLines(telemetry.Output(), line.substr(0, at) + sender + line.substr(at + 1)), 1);
  }
}

TEST(TelemetryCommand, PrintsTheWholeStateOnceAsJsonWithNumbersAsNumbers) {
  ChildProcess telemetry(Kestrelctl({"telemetry", "--once", "--json"}));
  ASSERT_TRUE(telemetry.WaitForLine("listening on 127.0.0.1:5000"));
  const PeerSocket daemon;
  const std::string text = "\aiso=400,ev=-1.3,shutter=1/50,id=007,time=1,big=12345678901234567,";
  for (const Datagram& datagram :
       {ToDatagram(BuildHistogramRecord({})), Datagram(text.begin(), text.end()),
        ToDatagram(BuildStatusRecord({}))}) {
    ASSERT_TRUE(daemon.Send(datagram, {.host = "127.0.0.1", .port = 5000}));
  }
  EXPECT_EQ(telemetry.WaitForExit(), ExitedWith(0));
  EXPECT_TRUE(telemetry.Output().starts_with("{\"time\":")) << telemetry.Output();
  EXPECT_EQ(CountLines(telemetry.Output(), R"(,"iso":400,"ev":-1.3,"shutter":"1/50","id":"007",)"
                                           R"("big":"12345678901234567","status_byte_0":0,)"),
            1)
      << telemetry.Output();
  EXPECT_EQ(CountLines(telemetry.Output(), R"("histogram":[0,0,)"), 1) << telemetry.Output();
}

}  // namespace
}  // namespace kestrelbridge::test
