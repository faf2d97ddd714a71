// Lines of columns from printf-like formats and typed values: what a mistaken format would do in printf cannot happen
// here.
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>

namespace Platform {

// One value for a format: a number or a text. Does not own the text: for use within one expression.
class FormatValue {
 public:
  FormatValue(std::string_view text) : kind_(Kind::text), text_(text) {}         // NOLINT: a widening
  FormatValue(const std::string& text) : FormatValue(std::string_view(text)) {}  // NOLINT
  FormatValue(const char* text) : FormatValue(std::string_view(text)) {}         // NOLINT
  template <std::signed_integral T>
  FormatValue(T number)
      : kind_(Kind::signedNumber), number_(static_cast<std::uint64_t>(std::int64_t{number})) {}  // NOLINT
  template <std::unsigned_integral T>
  FormatValue(T number) : kind_(Kind::unsignedNumber), number_(number) {}  // NOLINT

  bool isText() const { return kind_ == Kind::text; }
  bool isSigned() const { return kind_ == Kind::signedNumber; }
  std::string_view text() const { return text_; }   // of a text
  std::uint64_t number() const { return number_; }  // of a number; a signed one in two's complement

 private:
  enum class Kind : std::uint8_t { text, signedNumber, unsignedNumber };
  Kind kind_;
  std::string_view text_;
  std::uint64_t number_ = 0;
};

// Appends the format with its conversions filled from the values, in their order. A conversion is
//   % [-] [width] [l] [l] (s | d | u | x)
// s takes a text, the others a number: d and u write it in decimal, x in hexadecimal; %% is a percent sign. A value
// that is longer than the width is written whole. Asserts that conversions and values match one to one.
void appendFormatted(std::string& out, std::string_view format, std::span<const FormatValue> values);

inline std::string formatted(std::string_view format, std::initializer_list<FormatValue> values) {
  std::string out;
  appendFormatted(out, format, {values.begin(), values.size()});
  return out;
}

}  // namespace Platform
