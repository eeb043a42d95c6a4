// The redirect rule: what the shell gets to see, and what it must never see.

#include "bridge/redirect_rule.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "support/fake_iptables.h"

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

// The real shell, with a false iptables.
TEST(RedirectRule, NothingOfANameThatIsNotPlainIsEverRun) {
  const std::string path = getenv("PATH");
  const FakeIptables iptables;
  setenv("PATH", (iptables.Folder() + ":" + path).c_str(), 1);
  for (const char* text : {"a;>own;", "a$(>own)", "a|>own", "a>own", "a\n>own", "a\rb", "a\"b", "*",
                           "#", "a\x1B[2J", "\x01\xFF\x80"}) {
    for (const bool is_host : {false, true}) {
      testing::internal::CaptureStderr();
      InstallRedirectRule(is_host ? text : "192.168.2.1", 9004, is_host ? "wlan0" : text);
      const std::string log = testing::internal::GetCapturedStderr();
      const std::string place = is_host ? "camera host" : "access-point interface";
      EXPECT_EQ(log.find("No redirect rule for the phone app: " + place), 0U) << log;
      EXPECT_EQ(std::ranges::count(log, '\n'), 1) << log;
      EXPECT_TRUE(std::ranges::all_of(log, [](char c) {
        return c == '\n' || (c >= ' ' && c <= '~');
      })) << log;
      EXPECT_EQ(iptables.Calls(), "") << log;
    }
  }
  testing::internal::CaptureStderr();
  InstallRedirectRule("192.168.2.1", 9004, "wlan1  ");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "blanks at the end are plain";
  EXPECT_EQ(std::ranges::count(iptables.Calls(), '\n'), 1)
      << "the false iptables is the one that is run";
  setenv("PATH", path.c_str(), 1);
}

}  // namespace
}  // namespace kestrelbridge
