#include "diagnostics/logs/ExceptionsLog.h"

#include <sys/stat.h>

#include <cstdio>

#include "common/Mutex.h"
#include "common/Settings.h"
#include "common/TextFile.h"
#include "common/Texts.h"

namespace guardian {
namespace {

constexpr std::string_view kExtension = ".log";

std::string WithoutEnding(std::string_view text, std::string_view ending) {
  if (text.ends_with(ending)) text.remove_suffix(ending.size());
  return std::string(text);
}

void RotateAboveLimit(const std::string& name) {
  // Held for the rotation alone. Without it, when two threads find the log too large, the second
  // one would replace the generation that the first one has just saved by a new log.
  static TMutex rotation;
  const TMutexLock lock(rotation);
  struct stat file {};
  if (::stat(name.c_str(), &file) != 0 || file.st_size <= ExceptionsLogLimit()) return;
  // A log that cannot be renamed goes on growing.
  static_cast<void>(
      std::rename(name.c_str(), (WithoutEnding(name, kExtension) + ".prev.log").c_str()));
}

}  // namespace

std::string ExceptionsLogName() {
  const std::string program = WithoutEnding(FileNameOf(Settings().OwnExecutablePath), ".exe");
  return JoinPath(LogFolder(), program + "_Exceptions.log");
}

std::int64_t ExceptionsLogLimit() noexcept {
  constexpr std::int64_t kLimit = 104'857'600;
  return kLimit / (Settings().DebugMode ? 100 : 1);
}

std::string AppendToExceptionsLog(std::string_view text) {
  std::string name = ExceptionsLogName();
  RotateAboveLimit(name);
  const TFileDescriptor file = OpenTextFile(name, TTextFileOpening::AppendOrCreate);
  if (!file || WriteText(file, text) != 0) return {};
  return name;
}

}  // namespace guardian
