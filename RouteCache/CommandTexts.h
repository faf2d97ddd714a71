// The texts of the show commands, which who asks and the agent share.
#pragma once

#include "RouteCache/model/CommandTexts.h"
