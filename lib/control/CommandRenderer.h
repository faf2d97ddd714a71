// The two outputs of commands: lines of text for people, JSON for programs.
//
// Both append to a string that belongs to whoever made the renderer, who takes away what is there whenever it likes:
// nothing that has been written is looked at again.
#pragma once

#include <array>
#include <cstddef>
#include <list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/services/Renderer.h"

namespace LinuxPlatform {

class CommandRenderer : public Platform::Renderer {
 public:
  // The value of the attribute "cmdErr", once the command has written one: why it has failed.
  const std::optional<std::string>& commandError() const { return commandError_; }
  // Closes what a command that ends early leaves open. Nothing happens when it has not begun or has ended.
  virtual void close() = 0;

 protected:
  explicit CommandRenderer(std::string& out) : out_(out) {}
  // Whether one of the attributes is "cmdErr", which is remembered.
  bool takeCommandError(std::span<const Platform::OutputAttribute> attributes);

  std::string& out_;

 private:
  std::optional<std::string> commandError_;
};

// The formatted lines and nothing else. A failure is not among them: it is told as the command's error. The texts of
// attributes may be anybody's names: they are shown as Platform::printable() has them.
class TextRenderer final : public CommandRenderer {
 public:
  explicit TextRenderer(std::string& out) : CommandRenderer(out) {}
  Platform::OutputFormat outputFormat() const override { return Platform::OutputFormat::text; }
  void start() override {}
  void startDict(std::string_view) override {}
  void startDictEntry(std::string_view) override {}
  void endDictEntry() override {}
  void endDict() override {}
  void end() override {}
  void ioflush() override {}
  void close() override {}

 private:
  void writeAttributes(std::string_view format, std::span<const Platform::OutputAttribute> attributes) override;
  void writeFrills(std::string_view format, std::span<const Platform::FormatValue> values) override;

  std::vector<Platform::FormatValue> values_;  // of the line being written
  std::list<std::string> masked_;              // texts of its values
};

// One object, laid out for people too: a dictionary or entry begins a line, indented by its depth; attributes stand on
// the line of their entry.
//
//   {
//    "thresholdParams": {
//     "low": {"level": "low", "hwUtil": 85, "idleTime": 300}
//    }
//   }
//
// Keys and texts may hold any bytes: what is no UTF-8 is replaced by U+FFFD. Asserts that dictionaries and entries are
// ended in the order in which they were started, and that a key differs from the last few of its object: all of them
// would be a listing's length in memory.
class JsonRenderer final : public CommandRenderer {
 public:
  explicit JsonRenderer(std::string& out) : CommandRenderer(out) {}
  Platform::OutputFormat outputFormat() const override { return Platform::OutputFormat::json; }
  void start() override;
  void startDict(std::string_view key) override { openObject(Kind::dict, key); }
  void startDictEntry(std::string_view key) override { openObject(Kind::entry, key); }
  void endDictEntry() override { closeObject(Kind::entry); }
  void endDict() override { closeObject(Kind::dict); }
  void end() override;
  void ioflush() override {}
  void close() override;

 private:
  enum class Kind : std::uint8_t { root, dict, entry };
  // One object that is open, or the memory of one that was.
  struct Level {
    static constexpr std::size_t keysKept = 16;
    Kind kind = Kind::root;
    std::size_t members = 0;
    bool endsInObject = false;                   // the last member is no attribute
    std::array<std::string, keysKept> lastKeys;  // of the last members, at members % keysKept
  };

  void writeAttributes(std::string_view format, std::span<const Platform::OutputAttribute> attributes) override;
  void writeFrills(std::string_view, std::span<const Platform::FormatValue>) override {}
  void push(Kind kind);
  void openObject(Kind kind, std::string_view key);
  void closeObject(Kind kind);
  void beginMember(std::string_view key, bool isObject);
  void newLine(std::size_t indent);

  std::vector<std::unique_ptr<Level>> levels_;  // depth_ of them are open; the others wait to be used again
  std::size_t depth_ = 0;
  bool started_ = false;
};

// The renderer of a format.
std::unique_ptr<CommandRenderer> rendererOf(Platform::OutputFormat format, std::string& out);

}  // namespace LinuxPlatform
