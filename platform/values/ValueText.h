// Texts of compound values: "Value('RouteCache::Ipv4Route', ** {'key': ..., 'adjId': 5, 'inHw': true})", written and
// read from one description of the type's parts.
#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "platform/values/Text.h"

namespace Platform {

// One part of a value type: its name and the getter that reads it.
template <class C, class T>
struct ValuePart {
  using Type = std::remove_cvref_t<T>;
  const char* name;
  T (C::*get)() const;
};

template <class C, class T>
constexpr ValuePart<C, T> valuePart(const char* name, T (C::*get)() const) {
  return {name, get};
}

// A type that describes itself:
//   static constexpr const char* typeName;   "RouteCache::Ipv4Route"
//   static constexpr const char* what;       what a good text is: "an IPv4 route"
//   static constexpr auto valueParts();      a tuple of ValuePart, in the order of the constructor's arguments
// It may also read a shorter text for people: static std::optional<T> fromShortText(std::string_view).
template <class T>
concept CompoundValue = requires {
  { T::typeName } -> std::convertible_to<const char*>;
  { T::what } -> std::convertible_to<const char*>;
  T::valueParts();
};

// Cuts a compound value's text into the texts of its parts. False when it is no text of this type. No part's text may
// hold the ", 'name': " of the part behind it.
bool splitValueText(std::string_view text, std::string_view typeName, std::span<const char* const> names,
                    std::span<std::string_view> parts);

template <CompoundValue T>
struct TextForm<T> {
  static constexpr const char* what = T::what;

  static std::string to(const T& value) {
    std::string text = std::string("Value('") + T::typeName + "', ** {";
    const char* separator = "'";
    const auto add = [&](const auto& part) {
      text.append(separator).append(part.name).append("': ").append(toText((value.*part.get)()));
      separator = ", '";
    };
    std::apply([&](const auto&... part) { (add(part), ...); }, T::valueParts());
    return text.append("})");
  }

  static std::optional<T> from(std::string_view text) {
    if constexpr (requires { T::fromShortText(text); }) {
      if (!text.starts_with("Value(")) return T::fromShortText(text);
    }
    return std::apply([&](const auto&... part) { return read(text, part...); }, T::valueParts());
  }

 private:
  template <class... Parts>
  static std::optional<T> read(std::string_view text, const Parts&... parts) {
    const std::array<const char*, sizeof...(Parts)> names{parts.name...};
    std::array<std::string_view, sizeof...(Parts)> texts;
    if (!splitValueText(text, T::typeName, names, texts)) return std::nullopt;
    return build<typename Parts::Type...>(texts, std::index_sequence_for<Parts...>());
  }

  template <class... Types, std::size_t N, std::size_t... index>
  static std::optional<T> build(const std::array<std::string_view, N>& texts, std::index_sequence<index...>) {
    const std::tuple<std::optional<Types>...> values{TextForm<Types>::from(texts[index])...};
    if (!(std::get<index>(values) && ...)) return std::nullopt;
    return std::optional<T>(std::in_place, *std::get<index>(values)...);
  }
};

}  // namespace Platform
