#include "lib/control/CommandRenderer.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

#include "platform/values/Assert.h"
#include "platform/values/Printable.h"

namespace LinuxPlatform {

using Platform::FormatValue;
using Platform::OutputAttribute;

bool CommandRenderer::takeCommandError(std::span<const OutputAttribute> attributes) {
  const auto found = std::ranges::find(attributes, std::string_view("cmdErr"), &OutputAttribute::name);
  if (found == attributes.end()) return false;
  PLATFORM_ASSERT_TEXT(found->value.isText(), "cmdErr is a text");
  commandError_ = found->value.text();
  return true;
}

std::unique_ptr<CommandRenderer> rendererOf(Platform::OutputFormat format, std::string& out) {
  if (format == Platform::OutputFormat::json) return std::make_unique<JsonRenderer>(out);
  return std::make_unique<TextRenderer>(out);
}

// --- Text ------------------------------------------------------------------------------------------------------------

void TextRenderer::writeAttributes(std::string_view format, std::span<const OutputAttribute> attributes) {
  if (takeCommandError(attributes)) return;
  values_.clear();
  masked_.clear();
  for (const auto& attribute : attributes) {
    const bool isPlain = !attribute.value.isText() || Platform::isPrintable(attribute.value.text());
    values_.push_back(isPlain ? attribute.value : masked_.emplace_back(Platform::printable(attribute.value.text())));
  }
  Platform::appendFormatted(out_, format, values_);
}

void TextRenderer::writeFrills(std::string_view format, std::span<const FormatValue> values) {
  Platform::appendFormatted(out_, format, values);
}

// --- JSON texts ------------------------------------------------------------------------------------------------------

namespace {

// ASCII that stands in a JSON text as it is.
bool isPlain(char c) {
  const auto byte = static_cast<std::uint8_t>(c);
  return byte >= 0x20 && byte < 0x80 && c != '"' && c != '\\';
}

// Appends what stands for the first, not plain, character of the text and returns its length in the text.
std::size_t appendSpecial(std::string& out, std::string_view text) {
  constexpr const char* hexDigits = "0123456789abcdef";
  constexpr std::string_view replacement = "\xEF\xBF\xBD";
  const auto c = static_cast<std::uint8_t>(text.front());
  if (c < 0x20) {
    out += "\\u00";
    out += hexDigits[c >> 4U];
    out += hexDigits[c & 0xFU];
    return 1;
  }
  if (c < 0x80) {
    out += '\\';
    out += text.front();
    return 1;
  }
  const std::size_t length = Platform::utf8Length(text);
  out += length != 0 ? text.substr(0, length) : replacement;
  return std::max<std::size_t>(length, 1);
}

void appendQuoted(std::string& out, std::string_view text) {
  out += '"';
  while (!text.empty()) {
    const auto plain = static_cast<std::size_t>(std::ranges::find_if_not(text, isPlain) - text.begin());
    out += text.substr(0, plain);
    text.remove_prefix(plain);
    if (!text.empty()) text.remove_prefix(appendSpecial(out, text));
  }
  out += '"';
}

void appendValue(std::string& out, const FormatValue& value) {
  if (value.isText()) {
    appendQuoted(out, value.text());
    return;
  }
  Platform::appendFormatted(out, "%d", {&value, 1});
}

}  // namespace

// --- JSON objects ----------------------------------------------------------------------------------------------------

void JsonRenderer::start() {
  PLATFORM_ASSERT_TEXT(!started_, "output starts twice");
  started_ = true;
  push(Kind::root);
}

void JsonRenderer::end() {
  closeObject(Kind::root);
  out_ += '\n';
}

void JsonRenderer::close() {
  while (depth_ > 1) closeObject(levels_[depth_ - 1]->kind);
  if (depth_ == 1) end();
}

void JsonRenderer::openObject(Kind kind, std::string_view key) {
  beginMember(key, true);
  push(kind);
}

void JsonRenderer::push(Kind kind) {
  if (depth_ == levels_.size()) levels_.push_back(std::make_unique<Level>());
  Level& level = *levels_[depth_++];
  level.kind = kind;
  level.members = 0;
  level.endsInObject = false;
  out_ += '{';
}

void JsonRenderer::closeObject(Kind kind) {
  PLATFORM_ASSERT_TEXT(depth_ > 0 && levels_[depth_ - 1]->kind == kind, "output ends what is not the innermost open");
  --depth_;
  if (levels_[depth_]->endsInObject) newLine(depth_);
  out_ += '}';
}

void JsonRenderer::beginMember(std::string_view key, bool isObject) {
  PLATFORM_ASSERT_TEXT(depth_ > 0, "output outside of start and end");
  Level& level = *levels_[depth_ - 1];
  const auto lastKeys = std::span(level.lastKeys).first(std::min(level.members, Level::keysKept));
  PLATFORM_ASSERT_TEXT(std::ranges::find(lastKeys, key) == lastKeys.end(), "a key is used twice in one object");
  level.lastKeys[level.members % Level::keysKept] = key;

  if (level.members > 0) out_ += ',';
  if (isObject || level.endsInObject) {
    newLine(depth_);
  } else if (level.members > 0) {
    out_ += ' ';
  }
  ++level.members;
  level.endsInObject = isObject;
  appendQuoted(out_, key);
  out_ += ": ";
}

void JsonRenderer::newLine(std::size_t indent) {
  out_ += '\n';
  out_.append(indent, ' ');
}

void JsonRenderer::writeAttributes(std::string_view, std::span<const OutputAttribute> attributes) {
  takeCommandError(attributes);
  for (const auto& attribute : attributes) {
    if (attribute.name.empty()) continue;
    beginMember(attribute.name, false);
    appendValue(out_, attribute.value);
  }
}

}  // namespace LinuxPlatform
