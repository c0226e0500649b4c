#pragma once

#include "common/Exceptions.h"

namespace guardian {

// The message of what the function throws; "nothing thrown" when it throws nothing.
template <typename TFunction>
[[nodiscard]] std::string ThrownMessage(TFunction&& function) {
  try {
    function();
  } catch (...) {
    return CurrentExceptionMessage();
  }
  return "nothing thrown";
}

}  // namespace guardian
