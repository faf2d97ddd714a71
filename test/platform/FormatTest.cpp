#include <gmock/gmock.h>

#include <limits>

#include "platform/values/Format.h"

using Platform::formatted;
using Platform::FormatValue;

namespace {

TEST(FormatTest, ValuesFillTheirFields) {
  const struct {
    const char* what;
    const char* format;
    std::vector<FormatValue> values;
    const char* text;
  } cases[] = {
      {"no conversion", "-----\n", {}, "-----\n"},
      {"columns of a line", "%-6s %-4d|%4d|%4s\n", {"red", 7U, 42, "ab"}, "red    7   |  42|  ab\n"},
      {"a value wider than its column is written whole", "%-2s%2d%s", {"abc", -1234, ""}, "abc-1234"},
      {"percent signs", "%%%d%%", {50}, "%50%"},
      {"length letters say nothing new", "%ld %lld %lu %llu %llx", {1, 2, 3U, 4U, 255U}, "1 2 3 4 ff"},
      {"smallest and largest numbers",
       "%d %u",
       {std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::uint64_t>::max()},
       "-9223372036854775808 18446744073709551615"},
      {"d of an unsigned number has no sign, x of a negative one its bits",
       "%d 0x%x 0x%016x",
       {0xFFFFFFFFU, -1, 10},
       "4294967295 0xffffffffffffffff 0x               a"},
      {"bytes of any kind are a text", "%s|", {std::string_view("a\0%d", 4)}, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::string out = "> ";
    Platform::appendFormatted(out, c.format, c.values);
    EXPECT_EQ(out, "> " + (c.text != nullptr ? std::string(c.text) : std::string("a\0%d|", 5)));
  }
}

TEST(FormatDeathTest, FormatsThatDoNotMatchTheirValuesAreOurMistake) {
  EXPECT_DEATH(formatted("%d %d", {1}), "wants more values");
  EXPECT_DEATH(formatted("%d", {1, 2}), "leaves values over");
  EXPECT_DEATH(formatted("%s", {1}), "wants a text");
  EXPECT_DEATH(formatted("%x", {"red"}), "wants a number");
  for (const char* bad : {"%", "%5", "%lll", "%f", "% d"}) {
    EXPECT_DEATH(formatted(bad, {1}), "conversion that is none") << bad;
  }
}

}  // namespace
