// The route cache's values and tables, which it shares with other processes.
#pragma once

#include "RouteCache/RouteCacheTables.h"
#include "RouteCache/RouteCacheValues.h"
