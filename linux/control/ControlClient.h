// The command's side of the control socket.
#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace Tools {

using Json = nlohmann::ordered_json;

// Sends one request to the agent of this run directory and hands over each line of its reply's content, in order.
// Throws Platform::BadText with the agent's words when it refuses the request, and for one with a text that is not
// UTF-8; std::runtime_error with one line when no agent answers.
void askAgent(const std::string& runDirectory, const Json& request, const std::function<void(const Json&)>& content);

// Seconds without a byte from the other side: of a person who waits, and of a process that has other things to do.
inline constexpr double longPatience = 30;
inline constexpr double briefPatience = 0.5;

// The same for several requests, one after the other. One that is refused does not end it.
class AgentConnection {
 public:
  explicit AgentConnection(const std::string& runDirectory, double patience = longPatience);
  ~AgentConnection();
  AgentConnection(const AgentConnection&) = delete;
  AgentConnection& operator=(const AgentConnection&) = delete;
  void ask(const Json& request, const std::function<void(const Json&)>& content);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// The same for a request whose content is bytes: hands them over as they arrive.
void askAgentForBytes(const std::string& runDirectory, const Json& request,
                      const std::function<void(std::string_view)>& content);

// The same of another process that answers on a control socket of its own, at this path; `who` is what complaints call
// it.
void askProcess(const std::string& socketPath, const std::string& who, const Json& request,
                const std::function<void(const Json&)>& content, double patience = longPatience);

}  // namespace Tools
