// Replies to operators' requests, in the form that the control socket sends.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

namespace LinuxPlatform {

// One line of a reply: names and texts, in this order.
std::string controlLine(std::initializer_list<std::pair<std::string_view, std::string_view>> fields);
// Appends the bytes as content of a reply; nothing for no bytes.
void appendControlBytes(std::string& content, std::string_view bytes);

// The rest of one reply. Destroyed early when its reader goes away.
class ControlReply {
 public:
  virtual ~ControlReply() = default;
  // Appends some more content, whole lines or frames of bytes, some tens of KiB at most; or none when that takes longer
  // than a moment: it is asked again after others had their turn. False: there is no more. Throws with one line when
  // the rest is impossible; what it has appended by then is sent.
  virtual bool produce(std::string& content) = 0;
  // There is no more to produce before something else has happened. Whoever asks comes back a moment later.
  virtual bool isWaiting() const { return false; }
};

}  // namespace LinuxPlatform
