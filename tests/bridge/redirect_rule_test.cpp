// The redirect rule: what the shell gets to see. (That a name which is not plain is never run shows
// in tests/end_to_end/phone_start_test.cpp.)

#include "bridge/redirect_rule.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace kestrelbridge {
namespace {

struct Command {
  const char* host;
  std::int32_t port;
  const char* interface;
  const char* text;
};

TEST(RedirectRule, IsTheSameCommandToTheLetter) {
  const Command rows[] = {
      {"192.168.2.1", 9005, "wlan0 ",  // a name read from a file
       "iptables -t nat -I PREROUTING -i wlan0  --src 0/0 --dst 192.168.2.1 -p udp --dport 9005 -j "
       "REDIRECT --to-ports 9004"},
      {"012345678901234567890", INT32_MIN, "012345678",  // the longest that there can be
       "iptables -t nat -I PREROUTING -i 012345678 --src 0/0 --dst 012345678901234567890 -p udp "
       "--dport -2147483648 -j REDIRECT --to-ports 9004"},
  };
  for (const Command& row : rows) {
    const RedirectCommand command = FormatRedirectCommand(row.host, row.port, row.interface);
    EXPECT_STREQ(command.data(), row.text);
    const auto end = std::find(command.begin(), command.end(), '\0');
    EXPECT_EQ(std::count(end, command.end(), '\0'), command.end() - end);
  }
}

TEST(RedirectRule, PlainNamesHaveLettersDigitsBlanksAndSixMarks) {
  const std::string plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-:@+ ";
  for (int code = 0; code < 256; ++code) {
    const auto character = static_cast<char>(code);
    const bool expected = plain.find(character) != std::string::npos;
    EXPECT_EQ(IsPlainName(std::string("wlan") + character + "0"), expected) << code;
    EXPECT_EQ(IsPlainName(std::string(1, character)), expected) << code;
  }
  EXPECT_TRUE(IsPlainName(""));
}

}  // namespace
}  // namespace kestrelbridge
