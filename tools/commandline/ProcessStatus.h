// What a process beside the agent says of itself on a control socket of its own: names and numbers, and lines of
// another form where the process has more to say.
#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <utility>
#include <vector>

#include "linux/control/ControlSocket.h"

namespace Tools {

using Figures = std::vector<std::pair<std::string, std::uint64_t>>;

// The process's answer: the figures, and what else it has to say, in lines as controlLine() makes them.
class StatusReply final : public LinuxPlatform::ControlReply {
 public:
  explicit StatusReply(const Figures& figures, const std::string& otherLines = {});
  bool produce(std::string& lines) override;

 private:
  std::string lines_;
};

// Asks for `op` on the socket. The figures by name; `other` is called for each other line. Throws as askProcess() does.
nlohmann::ordered_json askStatus(const std::string& socketPath, const std::string& who, const std::string& op,
                                 const std::function<void(const nlohmann::ordered_json&)>& other = {});
// On standard output: a line for each, or JSON.
void printFigures(const nlohmann::ordered_json& figures);
void printJson(const nlohmann::ordered_json& status);

}  // namespace Tools
