// Names that anybody may have chosen, for people to read: what is UTF-8, and what would act on a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Platform {

// The bytes of the well-formed UTF-8 sequence that the text begins with; 0 when there is none. Neither surrogates nor
// longer forms than needed are well formed.
std::size_t utf8Length(std::string_view text);
bool isUtf8(std::string_view text);

// Whether a terminal shows all of the text: UTF-8 without control characters (U+0000 to U+001F, U+007F to U+009F).
bool isPrintable(std::string_view text);
// The text with "?" for each control character and for each byte that belongs to no UTF-8 sequence.
std::string printable(std::string_view text);

}  // namespace Platform
