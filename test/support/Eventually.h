// Waiting for what other processes do in their own time.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

// False: it did not come to hold.
inline bool eventually(const std::function<bool()>& holds) {
  constexpr std::chrono::minutes patience{1};
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!holds()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}
