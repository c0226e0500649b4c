#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>

#include <filesystem>
#include <set>

#include "common/Exceptions.h"
#include "common/Texts.h"
// What is larger stands in a file of its own, also for those who need nothing else.
#include "support/ChildProcess.h"
#include "support/Crew.h"
#include "support/EmptyStore.h"
#include "support/ErrorLogInFolder.h"
#include "support/Eventually.h"
#include "support/FakeClock.h"
#include "support/Joined.h"
#include "support/Program.h"
#include "support/SettingsBackup.h"

namespace guardian {

// The matchers that tests use by their bare names.
using testing::AllOf;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Matcher;
using testing::MatchesRegex;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

inline int CountOf(const std::string& text, std::string_view part) {
  int count = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) ++count;
  return count;
}

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

// The descriptors of this process.
inline std::set<int> OpenDescriptors() {
  std::set<int> numbers;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    numbers.insert(std::stoi(entry.path().filename().string()));
  }
  // The one of the listing itself is closed by now.
  std::erase_if(numbers, [](int number) { return ::fcntl(number, F_GETFD) < 0; });
  return numbers;
}

}  // namespace guardian
