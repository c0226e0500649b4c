#include "common/Settings.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "common/NeverDestroyed.h"

namespace guardian {

TSettings& Settings() {
  static TNeverDestroyed<TSettings> settings;
  return *settings;
}

std::string LogFolder() {
  std::string folder = Settings().LogDirectory.Copy();
  return folder.empty() ? Settings().TempDirectory.Copy() : folder;
}

void InitSettings(int argc, const char* const* argv) {
  TSettings& settings = Settings();
  settings.CommandLine.assign(argv, argv + argc);
  std::error_code error;
  settings.OwnExecutablePath = std::filesystem::read_symlink("/proc/self/exe", error).string();
  if (error && argc > 0) {
    settings.OwnExecutablePath = std::filesystem::weakly_canonical(argv[0], error).string();
  }
  if (const char* folder = std::getenv("TMPDIR"); folder != nullptr && *folder != '\0') {
    settings.TempDirectory.Set(folder);
  }
}

}  // namespace guardian
