// Assertions that stay on in every build type: a broken invariant stops the process with its text.
#pragma once

namespace Platform {

// Writes "assertion failed: <text>" with the place to standard error and aborts.
[[noreturn]] void assertionFailed(const char* text, const char* file, int line) noexcept;

}  // namespace Platform

// Aborts with the condition as it is written at the call unless it holds.
#define PLATFORM_ASSERT(condition) \
  (static_cast<bool>(condition) ? void(0) : ::Platform::assertionFailed(#condition, __FILE__, __LINE__))

// The same with a text of its own, for conditions that do not say what went wrong.
#define PLATFORM_ASSERT_TEXT(condition, text) \
  (static_cast<bool>(condition) ? void(0) : ::Platform::assertionFailed(text, __FILE__, __LINE__))
