#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <random>

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

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

// The names in a folder, sorted.
inline std::vector<std::string> NamesIn(const TTempFolder& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder.Path())) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// The text with a 9 in the place of every digit, so that times do not matter.
inline std::string Nines(std::string text) {
  for (char& c : text) c = c >= '0' && c <= '9' ? '9' : c;
  return text;
}

inline int CountOf(const std::string& text, std::string_view part) {
  int count = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) ++count;
  return count;
}

// Random numbers, the same in each run unless --gtest_random_seed says otherwise.
class TRandom {
 public:
  explicit TRandom(int life = 0) : FSeed(GTEST_FLAG_GET(random_seed) + life) {}
  [[nodiscard]] int Below(int limit) { return static_cast<int>(FEngine() % std::size_t(limit)); }

 private:
  const int FSeed;
  const testing::ScopedTrace FTrace{__FILE__, __LINE__, "random seed " + std::to_string(FSeed)};
  std::mt19937 FEngine{static_cast<unsigned>(FSeed)};
};

}  // namespace guardian
