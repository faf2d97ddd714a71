#include "platform/values/Format.h"

#include <array>
#include <charconv>
#include <cstddef>

#include "platform/values/Assert.h"

namespace Platform {

namespace {

struct Conversion {
  bool left = false;  // the text stands left in its field
  std::size_t width = 0;
  char type = '\0';  // s, d, u, x or %; nothing else is a conversion
};

// Takes the conversion that begins behind a percent sign from the front of the format.
Conversion takeConversion(std::string_view& format) {
  Conversion conversion;
  std::size_t at = 0;
  const auto next = [&] { return at < format.size() ? format[at] : '\0'; };
  if (next() == '-') {
    conversion.left = true;
    ++at;
  }
  for (; next() >= '0' && next() <= '9'; ++at) {
    conversion.width = conversion.width * 10 + static_cast<std::size_t>(next() - '0');
  }
  for (int i = 0; i < 2 && next() == 'l'; ++i) ++at;
  conversion.type = next();
  format.remove_prefix(conversion.type == '\0' ? at : at + 1);
  return conversion;
}

void appendField(std::string& out, const Conversion& conversion, std::string_view text) {
  const std::size_t padding = conversion.width > text.size() ? conversion.width - text.size() : 0;
  if (!conversion.left) out.append(padding, ' ');
  out += text;
  if (conversion.left) out.append(padding, ' ');
}

void appendNumber(std::string& out, const Conversion& conversion, const FormatValue& value) {
  std::array<char, 20> digits;  // NOLINT: filled by to_chars; the longest is -2^63 and 2^64 - 1 in decimal
  char* const begin = digits.data();
  char* const end = begin + digits.size();
  const bool withSign = value.isSigned() && conversion.type != 'x';
  const auto written = withSign ? std::to_chars(begin, end, static_cast<std::int64_t>(value.number()))
                                : std::to_chars(begin, end, value.number(), conversion.type == 'x' ? 16 : 10);
  appendField(out, conversion, {begin, static_cast<std::size_t>(written.ptr - begin)});
}

}  // namespace

void appendFormatted(std::string& out, std::string_view format, std::span<const FormatValue> values) {
  std::size_t used = 0;
  while (true) {
    const std::size_t percent = format.find('%');
    out += format.substr(0, percent);
    if (percent == std::string_view::npos) break;
    format.remove_prefix(percent + 1);
    const Conversion conversion = takeConversion(format);
    if (conversion.type == '%') {
      out += '%';
      continue;
    }
    PLATFORM_ASSERT_TEXT(used < values.size(), "a format wants more values than there are");
    const FormatValue& value = values[used++];
    if (conversion.type == 's') {
      PLATFORM_ASSERT_TEXT(value.isText(), "a format wants a text where a number is");
      appendField(out, conversion, value.text());
    } else {
      const char type = conversion.type;
      PLATFORM_ASSERT_TEXT(type == 'd' || type == 'u' || type == 'x', "a format has a conversion that is none");
      PLATFORM_ASSERT_TEXT(!value.isText(), "a format wants a number where a text is");
      appendNumber(out, conversion, value);
    }
  }
  PLATFORM_ASSERT_TEXT(used == values.size(), "a format leaves values over");
}

}  // namespace Platform
