#include "lib/control/ControlReply.h"

#include <nlohmann/json.hpp>

namespace LinuxPlatform {

using Json = nlohmann::ordered_json;

namespace {

std::string line(const Json& object) {
  return object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace

std::string controlLine(std::initializer_list<std::pair<std::string_view, std::string_view>> fields) {
  Json object = Json::object();
  for (const auto& [name, value] : fields) object[std::string(name)] = value;
  return line(object);
}

void appendControlBytes(std::string& content, std::string_view bytes) {
  if (bytes.empty()) return;
  content += line({{"bytes", bytes.size()}});
  content += bytes;
}

}  // namespace LinuxPlatform
