// Waiting for what other processes do in their own time. The patience is for slow machines only, never part of what a
// test says: whatever the agent does by itself after a while, a scan above all, must be put off for longer than that,
// or it hides that nothing has happened before.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

// False: it did not come to hold.
inline bool eventually(const std::function<bool()>& holds) {
  constexpr std::chrono::minutes patience{5};
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!holds()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}
