#pragma once

#include <filesystem>

#include "common/Event.h"
#include "diagnostics/KZCheckpoints.h"
#include "support/Crew.h"
#include "support/ErrorLogInFolder.h"
#include "support/Eventually.h"
#include "support/FakeClock.h"
#include "support/Matchers.h"
#include "support/OpenDescriptors.h"
#include "support/SettingsBackup.h"
#include "support/ThrownMessage.h"

namespace guardian {

inline int CountOf(const std::string& text, std::string_view part) {
  int count = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) ++count;
  return count;
}

}  // namespace guardian
