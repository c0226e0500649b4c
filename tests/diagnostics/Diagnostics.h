#pragma once

#include <gmock/gmock.h>

#include <filesystem>

#include "common/Event.h"
#include "diagnostics/KZCheckpoints.h"
#include "support/Crew.h"
#include "support/ErrorLogInFolder.h"
#include "support/Eventually.h"
#include "support/FakeClock.h"
#include "support/OpenDescriptors.h"
#include "support/SettingsBackup.h"
#include "support/ThrownMessage.h"

namespace guardian {

using testing::ContainsRegex;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

inline int CountOf(const std::string& text, std::string_view part) {
  int count = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) ++count;
  return count;
}

}  // namespace guardian
