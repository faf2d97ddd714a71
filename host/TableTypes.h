#pragma once

#include "platform/services/AgentBase.h"

namespace Tools {

// Every table type that there is: the platform's and the agent's.
Platform::TableTypes allTableTypes();

}  // namespace Tools
