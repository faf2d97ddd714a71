// Tracing into memory, as lines of text: what tests look at.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "lib/trace/TraceLevels.h"
#include "platform/trace/Trace.h"

namespace LinuxPlatform {

// Keeps every record as a line. Give the vocabulary the words of the agent's value types before they are traced.
class TextTraceFacility final : public Platform::TraceFacility, private Platform::TraceSink {
 public:
  struct Line {
    std::string handle;
    unsigned level = 0;
    std::string text;
  };

  explicit TextTraceFacility(int level = 9) { levels_.defaultIs(level); }

  bool fastTraceInit(const Platform::FastTraceSettings& settings) override {
    settings_ = settings;
    return true;
  }
  int levelOf(std::string_view handle) const override { return levels_.levelOf(handle); }
  Platform::TraceSink& sink() override { return *this; }

  Platform::TraceVocabulary& vocabulary() { return vocabulary_; }
  TraceLevels& levels() { return levels_; }
  // What the last fastTraceInit asked for; nothing before the first.
  const std::optional<Platform::FastTraceSettings>& settings() const { return settings_; }

  const std::vector<Line>& lines() const { return lines_; }
  // The number of lines with this text in them.
  std::size_t count(std::string_view text) const;
  void clear() { lines_.clear(); }

 private:
  void record(std::string_view handle, unsigned level, std::span<const std::uint8_t> items) override;

  TraceLevels levels_;
  Platform::TraceVocabulary vocabulary_;
  std::optional<Platform::FastTraceSettings> settings_;
  std::vector<Line> lines_;
};

}  // namespace LinuxPlatform
