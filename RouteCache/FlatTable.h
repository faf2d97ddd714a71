// The hash table that the agent keeps its routes in, for others with as many.
#pragma once

#include "RouteCache/queues/FlatTable.h"
