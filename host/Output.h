#pragma once

namespace Tools {

// Hands over what was printed, through std::cout or stdio. Throws std::runtime_error when standard output has not taken
// everything that was ever printed. Called at the end of every command, and by those that print for long as they go.
void flushOutput();

}  // namespace Tools
