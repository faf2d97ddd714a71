// Scenario files: the content of the state database as text.
//
//   {
//     "vrf/vrfNameStatus": {"nameToId": {"default": 1, "red": 2}},
//     "interface/status/eth/vxlan": {
//       "vtiStatus": {"Vxlan1": {"operStatus": "up", "extendedVlanToVniMap": {"10": 10010}}}
//     }
//   }
//
// The top-level keys are mount paths. An entity is an object: its attributes by name, its collections by name as
// objects of key -> value, or key -> object for child entities. Values are texts, numbers or booleans; all stand for
// the text that the generic value interface takes. An entity at a path of its own says what it is: "type".
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "platform/state/StateDb.h"

namespace LinuxPlatform {

// Mount path -> the type name of what stands there, always: who mounts the path counts on it.
using PathTypes = std::map<std::string, std::string, std::less<>>;

// What is wrong with a scenario, in one line that begins with its file and place:
// "FILE: line 3: ..." or "FILE: PATH.COLLECTION[KEY].ATTRIBUTE: ...".
class ScenarioError : public Platform::BadText {
 public:
  using Platform::BadText::BadText;
};

// Builds the entities of a scenario's text, by path; `fileName` is what errors call it. Everything has been checked
// when it returns, faults of whole entities included. Throws ScenarioError.
Lattis::Entities parseScenario(std::string_view text, const std::string& fileName, const Lattis::EntityTypes& types,
                               const PathTypes& pathTypes);

}  // namespace LinuxPlatform
