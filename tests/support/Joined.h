#pragma once

#include "common/SharedText.h"

namespace guardian {

inline std::string Joined(const TTextPieces& pieces) {
  std::string text;
  for (const auto& piece : pieces) text += *piece;
  return text;
}

}  // namespace guardian
