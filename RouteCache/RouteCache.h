// The route cache's values and tables, which it shares with other processes.
#pragma once

#include "RouteCache/model/StatusTables.h"
#include "RouteCache/model/Values.h"
