#include "state/format.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <string>

namespace kestrelbridge {
namespace {

TEST(Format, DurationsAreHoursMinutesSeconds) {
  struct Row {
    std::uint32_t seconds;
    const char* text;
  };
  constexpr Row rows[] = {
      {0, "00:00:00"},        {9, "00:00:09"},           {10, "00:00:10"},
      {59, "00:00:59"},       {60, "00:01:00"},          {599, "00:09:59"},
      {600, "00:10:00"},      {3599, "00:59:59"},        {3600, "01:00:00"},
      {3725, "01:02:05"},     {35'999, "09:59:59"},      {36'000, "10:00:00"},
      {65'535, "18:12:15"},   {359'999, "99:59:59"},     {360'000, "100:00:00"},
      {363'725, "101:02:05"}, {3'600'000, "1000:00:00"}, {UINT32_MAX, "1193046:28:15"},
  };
  for (const Row& row : rows) {
    char text[20];
    FormatDuration(row.seconds, text);
    EXPECT_STREQ(text, row.text) << row.seconds;
  }
}

TEST(Format, ShutterValuesAreWords) {
  struct Row {
    std::uint32_t value;  // C, B, A
    const char* text;
  };
  constexpr Row rows[] = {
      {0x00001E, "30\""},
      {0x000000, "0\""},
      {0x0000FF, "255\""},
      {0x020003, "3.2\""},
      {0xFF00FF, "255.255\""},
      {0x009F40, "1/8000"},
      {0x008001, "1/1"},
      {0x198001, "1/1.25"},
      {0x05800C, "1/12.5"},
      {0x0080F0, "1/240"},
      {0x00FFFF, "1/32767"},
      {0x058000, "1/0.5"},
      // Longer than the field: cut.
      {0xFFFFFF, "1/32767.2"},
      // Neither seconds nor a fraction: the text stays.
      {0x000105, "before"},
      {0x007FFF, "before"},
      {0xFF0100, "before"},
  };
  for (const Row& row : rows) {
    char text[10] = "before";
    FormatShutter(row.value, text);
    EXPECT_STREQ(text, row.text) << std::hex << row.value;
  }
}

TEST(Format, FreeSpaceIsInGigabytesAndEmptyWithoutAny) {
  struct Row {
    std::uint32_t megabytes;
    const char* text;
  };
  constexpr Row rows[] = {{0, ""},
                          {1, "0.0G"},
                          {60, "0.1G"},
                          {59'640, "59.6G"},
                          {1'000, "1.0G"},
                          {999'999, "1000.0G"},
                          {UINT32_MAX, "4294967.5G"}};
  for (const Row& row : rows) {
    char text[20] = "before";
    FormatFreeSpace(row.megabytes, text);
    EXPECT_STREQ(text, row.text) << row.megabytes;
  }
}

TEST(Format, AperturesHaveADecimalOnlyWhenTheyNeedIt) {
  struct Row {
    std::uint16_t hundredths;
    const char* text;
  };
  constexpr Row rows[] = {{0, "0"},     {200, "2"},   {280, "2.8"},    {100, "1"},
                          {281, "2.8"}, {1100, "11"}, {2200, "22"},    {1, "0.0"},
                          {560, "5.6"}, {1600, "16"}, {65'500, "655"}, {65'530, "655.3"}};
  for (const Row& row : rows) {
    char text[10] = "before";
    FormatAperture(row.hundredths, text);
    EXPECT_STREQ(text, row.text) << row.hundredths;
  }
}

TEST(Format, AWordIsCutToItsFieldAndLeavesNothingOfTheOneBefore) {
  std::array<char, 6> field = {'x', 'x', 'x', 'x', 'x', 'x'};
  SetText(field, "black white");
  EXPECT_STREQ(field.data(), "black");
  SetText(field, "art");
  EXPECT_EQ(std::string(field.data(), field.size()), std::string("art\0\0\0", 6));
}

}  // namespace
}  // namespace kestrelbridge
