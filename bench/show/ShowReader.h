// A reader of listings beside which ShowBench loads routes.
#pragma once

#include <string>

namespace Bench {

// Asks the agent for the listing in text, again and again, sleeping for so many seconds after every 64 KiB. Says so in
// a line of JSON with the first content; at the next line of its standard input, or the end of that, it ends with
// another that tells how much it has read: {"bytes": B}.
void runListingReader(const std::string& directory, double pause);

}  // namespace Bench
