#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <filesystem>
#include <memory>
#include <set>

#include "common/ErrorLog.h"
#include "common/Exceptions.h"
#include "common/KZCustomINIFile.h"
#include "common/Settings.h"
#include "common/Texts.h"
// What is larger stands in a file of its own, also for those who need nothing else.
#include "support/ChildProcess.h"
#include "support/Crew.h"
#include "support/Eventually.h"
#include "support/FakeClock.h"
#include "support/Joined.h"
#include "support/Program.h"

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

// Sets the limit that the process has of a resource; returns the one before.
inline rlim_t SetLimit(int resource, rlim_t most) {
  rlimit limit{};
  ::getrlimit(resource, &limit);
  const rlim_t before = std::exchange(limit.rlim_cur, most);
  ::setrlimit(resource, &limit);
  return before;
}

// A settings store that has nothing and keeps nothing: the base of those that do a little.
class TEmptyStore : public TKZCustomINIFile {
 public:
  std::string ReadString(std::string_view, std::string_view, std::string_view value) override {
    return std::string(value);
  }
  void WriteString(std::string_view, std::string_view, std::string_view) override {}
  std::vector<std::string> ReadSection(std::string_view) override { return {}; }
  std::vector<std::string> ReadSections() override { return {}; }
  std::vector<std::string> ReadSectionValues(std::string_view) override { return {}; }
  bool ValueExists(std::string_view, std::string_view) override { return false; }
  void DeleteKey(std::string_view, std::string_view) override {}
  void EraseSection(std::string_view) override {}
  void UpdateFile() override {}
};

// An error log in a fresh folder, for one test.
class TErrorLogInFolder {
 public:
  TErrorLogInFolder() { EXPECT_TRUE(ErrorLog().Open(FFolder.Path("error.log"))); }
  ~TErrorLogInFolder() { ErrorLog().Close(); }

  [[nodiscard]] std::string Text() const { return FFolder.Read("error.log"); }
  [[nodiscard]] const TTempFolder& Folder() const { return FFolder; }

 private:
  TTempFolder FFolder;
};

// Makes Settings() at its end what they are at the start of a process.
class TSettingsBackup {
 public:
  TSettingsBackup() {}
  ~TSettingsBackup() {
    std::destroy_at(&Settings());
    std::construct_at(&Settings());
  }
};

}  // namespace guardian
