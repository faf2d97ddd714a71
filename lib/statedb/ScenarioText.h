// Entities as a scenario file: what parseScenario() reads (Scenario.h).
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "platform/state/StateDb.h"

namespace LinuxPlatform {

// Makes the text field by field, so that somebody else may have a turn in between. What others can only read is left
// out. Entities may change meanwhile: an entry that is gone when its turn comes is left out, and what has changed
// behind the place where the text stands is in it as it was.
class ScenarioText {
 public:
  explicit ScenarioText(const Lattis::Entities& entities) : entities_(entities.begin(), entities.end()) {}
  // Adds the next field; false: the text is complete.
  bool step(std::string& text);

 private:
  // One entity that the text stands in; `collection` while it stands in one of its collections.
  struct Frame {
    std::shared_ptr<Lattis::Entity> entity;
    std::size_t nextAttribute = 0;
    std::size_t nextCollection = 0;
    const Lattis::CollectionField* collection = nullptr;
    std::vector<std::string> keys;
    std::size_t nextKey = 0;
  };
  bool stepIn(Frame& frame, std::string& text);
  void open(std::string& text, const std::string& name);
  void close(std::string& text);
  void member(std::string& text, const std::string& name, const std::string& value);
  void lineBreak(std::string& text);

  const std::vector<std::pair<std::string, std::shared_ptr<Lattis::Entity>>> entities_;
  std::size_t nextEntity_ = 0;
  std::vector<Frame> frames_;
  std::size_t depth_ = 0;  // of open braces
  bool begun_ = false;
  bool isFirst_ = true;  // behind a brace
};

}  // namespace LinuxPlatform
