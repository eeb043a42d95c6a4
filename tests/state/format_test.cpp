#include "state/format.h"

#include <gtest/gtest.h>

#include <span>
#include <string>

namespace kestrelbridge {
namespace {

struct Row {
  std::uint32_t value;
  const char* text;
};

// Each value in a field that held another text, as long as the one in the camera's record.
void Check(void (*format)(std::uint32_t, std::span<char>), std::size_t size,
           std::span<const Row> rows) {
  for (const Row& row : rows) {
    char field[20] = "before";
    format(row.value, std::span(field).first(size));
    EXPECT_STREQ(field, row.text) << row.value;
  }
}

TEST(Format, DurationsAreHoursMinutesSeconds) {
  constexpr Row kRows[] = {
      {0, "00:00:00"},        {9, "00:00:09"},        {59, "00:00:59"},
      {60, "00:01:00"},       {3599, "00:59:59"},     {3725, "01:02:05"},
      {36'000, "10:00:00"},   {65'535, "18:12:15"},   {359'999, "99:59:59"},
      {360'000, "100:00:00"}, {363'725, "101:02:05"}, {UINT32_MAX, "1193046:28:15"}};
  Check(FormatDuration, 20, kRows);
}

TEST(Format, ShutterValuesAreWords) {
  constexpr Row kRows[] = {{0x00001E, "30\""},
                           {0x000000, "0\""},
                           {0x0000FF, "255\""},
                           {0x020003, "3.2\""},
                           {0xFF00FF, "255.255\""},
                           {0x009F40, "1/8000"},
                           {0x008001, "1/1"},
                           {0x198001, "1/1.25"},
                           {0x05800C, "1/12.5"},
                           {0x00FFFF, "1/32767"},
                           {0x058000, "1/0.5"},
                           {0xFFFFFF, "1/32767.2"},  // longer than the field: cut
                           // Neither seconds nor a fraction: the text stays.
                           {0x000105, "before"},
                           {0x007FFF, "before"},
                           {0xFF0100, "before"}};
  Check(FormatShutter, 10, kRows);
}

TEST(Format, FreeSpaceIsInGigabytesAndEmptyWithoutAny) {
  constexpr Row kRows[] = {{0, ""},           {1, "0.0G"},          {60, "0.1G"},
                           {59'640, "59.6G"}, {999'999, "1000.0G"}, {UINT32_MAX, "4294967.5G"}};
  Check(FormatFreeSpace, 20, kRows);
}

TEST(Format, AperturesHaveADecimalOnlyWhenTheyNeedIt) {
  constexpr Row kRows[] = {{0, "0"},     {1, "0.0"},      {200, "2"},
                           {280, "2.8"}, {281, "2.8"},    {1100, "11"},
                           {560, "5.6"}, {65'500, "655"}, {65'530, "655.3"}};
  Check([](std::uint32_t value,
           std::span<char> field) { FormatAperture(static_cast<std::uint16_t>(value), field); },
        10, kRows);
}

TEST(Format, AWordIsCutToItsFieldAndLeavesNothingOfTheOneBefore) {
  std::string field(6, 'x');
  SetText(field, "black white");
  EXPECT_STREQ(field.data(), "black");
  SetText(field, "art");
  EXPECT_EQ(field, std::string("art\0\0\0", 6));
}

}  // namespace
}  // namespace kestrelbridge
