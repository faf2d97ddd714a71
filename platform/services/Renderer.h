// The structured output of commands: one set of calls from which a platform makes text for people or data for programs.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string_view>

#include "platform/values/Format.h"

namespace Platform {

// With the numbers by which commands name them.
enum class OutputFormat : std::uint8_t { text = 1, json = 2 };

// One attribute of the entry that is open. Without a name it stands in the text only. Does not own its texts.
struct OutputAttribute {
  std::string_view name;
  FormatValue value;
};

// One command's output: start, then any nesting of dictionaries, entries and attributes, then end. Structured output is
// one object; a dictionary or an entry is an object under its key in the object around it, attributes are its members.
// Within one object no key is used twice. Text output is the formatted lines, in the order of the calls.
//
// What the implementer promises: output leaves in the order of the calls and is not kept until the end, so that a
// command may write without bound and pause anywhere; numbers are numbers in structured output, texts are texts,
// whatever bytes they hold; a command that ends early leaves an object that is closed.
class Renderer {
 public:
  Renderer() = default;
  Renderer(const Renderer&) = delete;
  Renderer& operator=(const Renderer&) = delete;
  virtual ~Renderer() = default;

  virtual OutputFormat outputFormat() const = 0;
  virtual void start() = 0;
  virtual void startDict(std::string_view key) = 0;
  virtual void startDictEntry(std::string_view key) = 0;
  virtual void endDictEntry() = 0;
  virtual void endDict() = 0;
  virtual void end() = 0;
  // Everything written so far goes to the reader.
  virtual void ioflush() = 0;

  // In text the format filled with the values of all attributes, in their order; the attribute "cmdErr" says why the
  // command has failed.
  void addAttributes(std::string_view textFormat, std::initializer_list<OutputAttribute> attributes) {
    writeAttributes(textFormat, {attributes.begin(), attributes.size()});
  }
  // In text only: headings, rulers.
  void addFrills(std::string_view textFormat, std::initializer_list<FormatValue> values = {}) {
    writeFrills(textFormat, {values.begin(), values.size()});
  }

 private:
  virtual void writeAttributes(std::string_view textFormat, std::span<const OutputAttribute> attributes) = 0;
  virtual void writeFrills(std::string_view textFormat, std::span<const FormatValue> values) = 0;
};

}  // namespace Platform
