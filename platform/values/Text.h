// Values as text: one trait for every type that the generic value interface, scenario files and commands give and take.
#pragma once

#include <charconv>
#include <concepts>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/values/Printable.h"

namespace Platform {

// Specialised next to each type that has a text form:
//   static constexpr const char* what;                        what a good text is: "an IPv4 prefix"
//   static std::string to(const T& value);                    the canonical text
//   static std::optional<T> from(std::string_view text);      nothing unless the whole text is well formed
// from(to(x)) == x holds for every value of every specialisation.
template <class T>
struct TextForm;

// A text that a person or another process gave and that does not name a value. what() is one line for that person.
class BadText : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

template <class T>
std::string toText(const T& value) {
  return TextForm<T>::to(value);
}

// Throws BadText("'abc' is not an IPv4 prefix") when the text is not well formed.
template <class T>
T fromText(std::string_view text) {
  if (auto value = TextForm<T>::from(text)) return *std::move(value);
  throw BadText("'" + printable(text) + "' is not " + TextForm<T>::what);
}

template <std::integral T>
struct TextForm<T> {
  static constexpr const char* what = sizeof(T) == 1   ? "a number of 8 bits"
                                      : sizeof(T) == 2 ? "a number of 16 bits"
                                      : sizeof(T) == 4 ? "a number of 32 bits"
                                                       : "a number of 64 bits";
  static std::string to(T value) { return std::to_string(value); }
  static std::optional<T> from(std::string_view text) {
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
  }
};

template <>
struct TextForm<bool> {
  static constexpr const char* what = "true or false";
  static std::string to(bool value) { return value ? "true" : "false"; }
  static std::optional<bool> from(std::string_view text) {
    if (text == "true" || text == "1") return true;
    if (text == "false" || text == "0") return false;
    return std::nullopt;
  }
};

// Seconds and other real numbers: the shortest text that reads back to the same number; "inf" is accepted.
template <>
struct TextForm<double> {
  static constexpr const char* what = "a number";
  static std::string to(double value);
  static std::optional<double> from(std::string_view text);
};

template <>
struct TextForm<std::string> {
  static constexpr const char* what = "a text";
  static std::string to(const std::string& value) { return value; }
  static std::optional<std::string> from(std::string_view text) { return std::string(text); }
};

}  // namespace Platform
