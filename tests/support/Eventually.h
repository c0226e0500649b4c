#pragma once

#include <chrono>

#include "common/MainThread.h"

namespace guardian {

// Looks every few milliseconds until the condition holds; false when it does not within the limit,
// which only bounds a failure and is never what a test measures. In the main thread it runs the
// requests of other threads meanwhile.
template <typename TPredicate>
[[nodiscard]] bool Eventually(TPredicate&& holds,
                              std::chrono::seconds limit = std::chrono::seconds(30)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!holds()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    CheckSynchronize(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace guardian
