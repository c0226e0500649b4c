#pragma once

#include "common/Settings.h"

namespace guardian {

// Gives Settings() back at its end as it found them.
class TSettingsBackup {
 public:
  TSettingsBackup() {}
  ~TSettingsBackup() {
    TSettings& settings = Settings();
    settings.CommandLine = FCommandLine;
    settings.OwnExecutablePath = FOwnExecutablePath;
    settings.MutexDirectory.Set(FMutexDirectory);
    settings.LogDirectory.Set(FLogDirectory);
    settings.TempDirectory.Set(FTempDirectory);
    settings.DebugMode = false;
    settings.DebugHook = 0;
    settings.ShellTrace = false;
    settings.PlainSystemCall = false;
    settings.AskingGuardian = false;
  }
  TSettingsBackup(const TSettingsBackup&) = delete;
  TSettingsBackup& operator=(const TSettingsBackup&) = delete;

 private:
  const std::vector<std::string> FCommandLine = Settings().CommandLine;
  const std::string FOwnExecutablePath = Settings().OwnExecutablePath;
  const std::string FMutexDirectory = Settings().MutexDirectory.Copy();
  const std::string FLogDirectory = Settings().LogDirectory.Copy();
  const std::string FTempDirectory = Settings().TempDirectory.Copy();
};

}  // namespace guardian
