#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "diagnostics/Diagnostics.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/job_mutex.h"
#include "diagnostics/jobs/MutexRegistry.h"
#include "support/FakeClock.h"

namespace guardian {

inline TFileHandle OpenMutexFile(const TTempFolder& folder) {
  return AddFileObject(TFileDescriptor(
      ::open(folder.Path("mutex.lock").c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600)));
}

inline bool IsFileOpen(TFileHandle handle) { return BorrowFileObject(handle) != nullptr; }

// A profile's report that is one text.
class TFixedReport final : public TProfileReport {
 public:
  explicit TFixedReport(std::string text) : FText(std::move(text)) {}
  [[nodiscard]] std::string Text() override { return FText; }

 private:
  const std::string FText;
};

// Moves the steady time on by hours, further at each call: what was said in earlier tests then is
// no repetition.
inline void BeginAnew(TFakeClock& clock) {
  static int calls = 0;
  const TDateTime wall = clock.Now();
  clock.Advance(std::chrono::hours(24) * ++calls);
  clock.SetWall(wall);
}

// A registry with a list, time that stands still, and what its hooks were told.
class TRegistryTest : public testing::Test {
 protected:
  TRegistryTest() {
    BeginAnew(FClock);
    KZCP::Init();
    FRegistry.CreateList();
    FRegistry.Settings.ReportFolder = FReports.Path();
    FRegistry.Settings.LogHook = [this](std::string_view text) { FLog.emplace_back(text); };
    FRegistry.Settings.ReportLog = [this](const std::string& text) {
      FReasons.push_back(text.substr(0, text.find("\n\nSee Report File: ")));
    };
  }
  ~TRegistryTest() override {
    for (const auto& entry : Entries()) {
      if (IsFileOpen(entry->Info.Handle)) CloseHandle(entry->Info.Handle);
    }
    KZCP::Fini(&CheckMutexesAtTermination);
  }

  TMutexEntries Entries() {
    const TKZLockGuard lock(FRegistry.Lock);
    return FRegistry.Entries();
  }

  // Registers an open file under "<profile>.mutex"; the entry's owner is a thread of that number.
  std::shared_ptr<TMutexEntry> Register(const std::string& profile, std::int32_t owner = 4711,
                                        TMutexFreedCallback onFreed = {}, std::int32_t number = 0) {
    const auto provider = [profile] { return std::make_unique<TFixedReport>("All of " + profile); };
    FRegistry.Register(profile + ".mutex", profile, OpenMutexFile(FMutexes), provider,
                       std::move(onFreed), number);
    auto entry = Entries().back();
    entry->Info.OwnerThread = owner;
    return entry;
  }

  [[nodiscard]] std::string ReportText() const {
    const auto names = NamesIn(FReports);
    return names.empty() ? "" : FReports.Read(names.back());
  }

  const TTempFolder FReports;
  const TTempFolder FMutexes;
  TErrorLogInFolder FErrorLog;
  TFakeClock FClock;
  TMutexRegistry FRegistry{FClock};
  std::vector<std::string> FLog;
  std::vector<std::string> FReasons;  // Of the run reports.
};

}  // namespace guardian
