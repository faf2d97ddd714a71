// The listing of ShowBench done plainly: a program that walks the same tables and prints the same with printf.
#pragma once

#include <string>

namespace Bench {

// Says that it is ready in a line of JSON, reads "text" or "json" in a line of the standard input, prints to the
// standard output what the agent answers to the listing command, closes it, and waits for the end of the input. It
// serves nobody else, yields to nobody, and its tables do not change.
void runPlainListing(const std::string& directory);

}  // namespace Bench
