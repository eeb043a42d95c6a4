// The redirect rule: what the shell gets to see, and what it must never see.

#include "bridge/redirect_rule.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

#include "support/child_process.h"
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
      {"192.168.2.1", 9004, "wlan0",
       "iptables -t nat -I PREROUTING -i wlan0 --src 0/0 --dst 192.168.2.1 -p udp --dport 9004 -j "
       "REDIRECT --to-ports 9004"},
      {"192.168.2.1", 9005, "wlan0 ",  // a name read from a file
       "iptables -t nat -I PREROUTING -i wlan0  --src 0/0 --dst 192.168.2.1 -p udp --dport 9005 -j "
       "REDIRECT --to-ports 9004"},
      {"192.168.2.1", 74540, "",
       "iptables -t nat -I PREROUTING -i  --src 0/0 --dst 192.168.2.1 -p udp --dport 74540 -j "
       "REDIRECT --to-ports 9004"},
      {"012345678901234567890", INT32_MIN, "012345678",  // the longest that there can be
       "iptables -t nat -I PREROUTING -i 012345678 --src 0/0 --dst 012345678901234567890 -p udp "
       "--dport -2147483648 -j REDIRECT --to-ports 9004"},
  };
  for (const Command& row : rows) {
    const RedirectCommand command = FormatRedirectCommand(row.host, row.port, row.interface);
    EXPECT_STREQ(command.data(), row.text);
    const auto end = std::find(command.begin(), command.end(), '\0');
    EXPECT_TRUE(std::all_of(end, command.end(), [](char rest) { return rest == '\0'; }));
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

struct Attempt {
  const char* name;
  std::string text;
};
std::ostream& operator<<(std::ostream& out, const Attempt& row) { return out << row.name; }

// Runs the real shell with a false iptables.
class RuleInShell : public testing::TestWithParam<Attempt> {
 protected:
  void SetUp() override {
    setenv("PATH", (iptables_.Folder() + ":" + path_).c_str(), 1);
    std::filesystem::current_path(iptables_.WorkFolder());
  }
  void TearDown() override {
    setenv("PATH", path_.c_str(), 1);
    std::filesystem::current_path("/");
  }

  // Returns what was logged.
  std::string Install(const std::string& host, const std::string& interface) {
    testing::internal::CaptureStderr();
    InstallRedirectRule(host.c_str(), 9004, interface.c_str());
    return testing::internal::GetCapturedStderr();
  }

  FakeIptables iptables_;

 private:
  const std::string path_ = getenv("PATH");
};

TEST_P(RuleInShell, NothingOfANameThatIsNotPlainIsEverRun) {
  const std::string& text = GetParam().text;
  struct Place {
    const char* what;
    std::string host;
    std::string interface;
  };
  for (const Place& place : {Place{"access-point interface", "192.168.2.1", text},
                             Place{"camera host", text, "wlan0"}}) {
    const std::string log = Install(place.host, place.interface);
    EXPECT_EQ(iptables_.Calls(), std::vector<std::string>{}) << place.what;
    EXPECT_EQ(iptables_.Strays(), std::vector<std::string>{}) << place.what;
    EXPECT_EQ(std::ranges::count(log, '\n'), 1) << log;
    EXPECT_EQ(CountLines(log, std::string("No redirect rule for the phone app: ") + place.what), 1)
        << log;
    EXPECT_TRUE(std::ranges::all_of(log, [](char c) {
      return c == '\n' || (c >= ' ' && c <= '~');
    })) << log;
  }
}

INSTANTIATE_TEST_SUITE_P(
    RedirectRule, RuleInShell,
    testing::Values(Attempt{"NextCommand", "a;>own;"}, Attempt{"Substitution", "a$(>own)"},
                    Attempt{"BackQuotes", "a`>own`"}, Attempt{"Pipe", "a|>own"},
                    Attempt{"And", "a&&>own"}, Attempt{"Background", "a&>own"},
                    Attempt{"Redirection", "a>own"}, Attempt{"Input", "a<own"},
                    Attempt{"NextLine", "a\n>own"}, Attempt{"PlainNextLine", "a\ntouch own\nb"},
                    Attempt{"CarriageReturn", "a\rb"}, Attempt{"Tab", "a\tb"},
                    Attempt{"DoubleQuotes", "a\"b"}, Attempt{"SingleQuotes", "a'b"},
                    Attempt{"Backslash", "a\\"}, Attempt{"Variable", "$HOME"},
                    Attempt{"Pattern", "*"}, Attempt{"OneOf", "[a-z]?"}, Attempt{"Braces", "{a,b}"},
                    Attempt{"Home", "~"}, Attempt{"Comment", "#"}, Attempt{"Negation", "!"},
                    Attempt{"Escape", "a\x1B[2J"}, Attempt{"Binary", "\x01\xFF\x80"}),
    [](const auto& row) { return row.param.name; });

class RuleInQuietShell : public RuleInShell {};

TEST_P(RuleInQuietShell, IsAskedForOnce) {
  EXPECT_EQ(Install("192.168.2.1", GetParam().text), "");
  const std::vector<std::string> expected = {
      "[-t][nat][-I][PREROUTING][-i][wlan1][--src][0/0][--dst][192.168.2.1][-p][udp][--dport][9004]"
      "[-j][REDIRECT][--to-ports][9004]"};
  EXPECT_EQ(iptables_.Calls(), expected);
}

INSTANTIATE_TEST_SUITE_P(RedirectRule, RuleInQuietShell,
                         testing::Values(Attempt{"Name", "wlan1"},
                                         Attempt{"NameAndBlanks", "wlan1  "}),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace kestrelbridge
