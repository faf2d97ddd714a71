#include "tools/commandline/ProcessStatus.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "linux/control/ControlClient.h"
#include "platform/values/Printable.h"
#include "platform/values/Text.h"

namespace Tools {

StatusReply::StatusReply(const Figures& figures, const std::string& otherLines) {
  for (const auto& [name, value] : figures) {
    lines_ += LinuxPlatform::controlLine({{"name", name}, {"value", std::to_string(value)}});
  }
  lines_ += otherLines;
}

bool StatusReply::produce(std::string& lines) {
  lines += lines_;
  return false;
}

Json askStatus(const std::string& socketPath, const std::string& who, const std::string& op,
               const std::function<void(const Json&)>& other) {
  Json figures = Json::object();
  askProcess(socketPath, who, {{"op", op}}, [&](const Json& line) {
    if (line.contains("name")) {
      figures[line.value("name", "")] = Platform::fromText<std::uint64_t>(line.value("value", "0"));
    } else if (other) {
      other(line);
    }
  });
  return figures;
}

void printFigures(const Json& figures) {
  for (const auto& [name, value] : figures.items()) {
    std::printf("%-16s %12llu\n", Platform::printable(name).c_str(),
                static_cast<unsigned long long>(value.get<std::uint64_t>()));
  }
}

void printJson(const Json& status) {
  std::printf("%s\n", status.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
}

}  // namespace Tools
