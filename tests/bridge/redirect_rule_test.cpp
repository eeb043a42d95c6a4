// The redirect rule: what the shell gets to see. (That a name which is not plain is never run shows
// in tests/end_to_end/phone_start_test.cpp.)

#include "bridge/redirect_rule.h"

#include <gtest/gtest.h>

#include <string>

namespace kestrelbridge::test {
namespace {

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
}  // namespace kestrelbridge::test
