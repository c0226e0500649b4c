#include "diagnostics/jobs/RunReport.h"

#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <utility>

#include "common/DiagnosticMessage.h"
#include "common/Exceptions.h"
#include "common/Mutex.h"
#include "common/NeverDestroyed.h"
#include "common/Settings.h"
#include "common/TextFile.h"
#include "common/Texts.h"
#include "diagnostics/KZCheckpoints.h"

namespace guardian {
namespace {

std::int64_t Milliseconds(TDateTime days) {
  return std::llround(days * static_cast<double>(kMillisecondsPerDay));
}

// Replaces an older file by a new one, and does not follow a symbolic link: all users may be able
// to write to the folder. Tries again when another process makes a file of the same name in
// between.
TFileDescriptor CreateReplacing(const std::string& path) {
  constexpr int kAttempts = 5;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    ::unlink(path.c_str());
    if (TFileDescriptor file = OpenTextFile(path, TTextFileOpening::CreateNew); file) return file;
    if (errno != EEXIST) break;
  }
  throw ESystemError("create", path, errno);
}

// A report file that is being written.
class TReportFile {
 public:
  explicit TReportFile(std::string path) : FPath(std::move(path)), FFile(CreateReplacing(FPath)) {}

  // Throws ESystemError when the file refuses it.
  void WriteLine(std::string_view line) const {
    if (const int error = WriteTextLine(FFile, line); error != 0) {
      throw ESystemError("write", FPath, error);
    }
  }

 private:
  const std::string FPath;
  const TFileDescriptor FFile;
};

std::string EntryLine(const TMutexEntry& entry, const TClock& clock) {
  const TMutexInfo& info = entry.Info;
  std::string line =
      info.ProfileName + " / " + entry.Name + " / Handle=" + std::to_string(info.Handle);
  if (info.Handle != info.RegisteredHandle) {
    line += " / Orig. Handle=" + std::to_string(info.RegisteredHandle);
  }
  if (info.FreedAt > 0) line += " / Freed:" + DateTimeToStr(clock.ToWallTime(info.FreedAt));
  return line + " / active for " + FormatDuration(clock.SteadyNow() - info.RegisteredAt);
}

std::string ProvidedText(const TReportProvider& provider) {
  const auto report = provider ? provider() : nullptr;
  if (report == nullptr) throw KZException("The profile has no report.");
  return report->Text();
}

void WriteDetails(const TReportFile& file, const TMutexInfo& info) {
  file.WriteLine("Detailed Report for " + info.ProfileName);
  std::string text;
  try {
    text = ProvidedText(info.ReportProvider);
  } catch (...) {
    text = "Exception: " + CurrentExceptionMessage() + "\n";
  }
  file.WriteLine(text);
}

void WriteContents(const TReportFile& file, TMutexRegistry& registry, std::string_view reason,
                   TDateTime now) {
  const TKZLockGuard lock(registry.Lock);
  file.WriteLine("Vellumark Run Report From " + DateTimeToStr(now) + " for " +
                 Settings().OwnExecutablePath);
  file.WriteLine("");
  file.WriteLine(std::string("Reason for this Report: ").append(reason));
  file.WriteLine("");
  // The misspelling stays: other programs search for it.
  file.WriteLine("#Active Pofiles With Job Mutex Names");
  for (const auto& entry : registry.Entries()) file.WriteLine(EntryLine(*entry, registry.Clock()));
  file.WriteLine("");
  file.WriteLine(KZCP::ThreadReport(KZCP::TReportHeader::With));
  file.WriteLine("");
  for (const auto& entry : registry.Entries()) {
    if (entry->Listed) WriteDetails(file, entry->Info);
  }
}

void WriteReportFile(const std::string& path, TMutexRegistry& registry, std::string_view reason,
                     TDateTime now) {
  const TReportFile file(path);
  try {
    WriteContents(file, registry, reason, now);
  } catch (...) {
    const std::string failure = "\nException: " + CurrentExceptionMessage();
    Guarded("WriteRunReport", registry.Clock(), [&] { file.WriteLine(failure); });
    throw;
  }
}

void TryWriteRunReport(TMutexRegistry& registry, std::string_view reason) {
  registry.ReportNeeded = true;
  const TDateTime now = registry.Clock().Now();
  const TMutexGuardianSettings& settings = registry.Settings;
  const std::string name = SafeFileName("Vellumark Run Report " + DateTimeToStr(now)) + ".txt";
  const std::string path =
      JoinPath(settings.ReportFolder.empty() ? LogFolder() : settings.ReportFolder, name);
  if (settings.ReportLog) {
    settings.ReportLog(std::string(reason).append("\n\nSee Report File: ").append(path));
  }
  WriteReportFile(path, registry, reason, now);
  registry.Log("Report File Created: " + path);
}

// The folder of the last activity report that was given one.
class TRememberedFolder {
 public:
  // Returns the folder to use: the given one, which is remembered, else the remembered one.
  std::string Choose(std::string_view given) KZ_EXCLUDES(FLock) {
    constexpr std::size_t kMaxRemembered = 255;
    const TMutexLock lock(FLock);
    if (!given.empty()) {
      FFolder = given.substr(0, kMaxRemembered);
      return std::string(given);
    }
    return FFolder.empty() ? LogFolder() : FFolder;
  }

 private:
  TMutex FLock;
  std::string FFolder KZ_GUARDED_BY(FLock);
};

TRememberedFolder& RememberedFolder() {
  static TNeverDestroyed<TRememberedFolder> folder;
  return *folder;
}

std::string ActivityFileName(std::string_view name, TDateTime now) {
  std::string fileName = std::filesystem::path(Settings().OwnExecutablePath).stem().string() +
                         "-PID" + std::to_string(::getpid());
  if (!name.empty()) fileName += "." + SafeFileName(name);
  char fraction[8];
  std::snprintf(fraction, sizeof(fraction), ".%03d", static_cast<int>(Milliseconds(now) % 1000));
  return fileName + ".activityreport-" + SafeFileName(DateTimeToStr(now) + fraction) + ".txt";
}

void WriteActivityReport(const std::string& path, std::string_view report) {
  const TFileDescriptor file = CreateReplacing(path);
  const int error = WriteAll(file.Get(), report);
  if (error != 0) throw ESystemError("write", path, error);
}

}  // namespace

std::string FormatDuration(TDateTime duration) {
  constexpr TDateTime kLongest = 366e6;
  if (!(duration >= 0 && duration < kLongest)) return "";
  const std::int64_t milliseconds = Milliseconds(duration);
  const std::int64_t days = milliseconds / kMillisecondsPerDay;
  const auto timeOfDay = static_cast<TDateTime>(milliseconds % kMillisecondsPerDay) /
                         static_cast<double>(kMillisecondsPerDay);
  const std::string time = TimeOfDayToStr(timeOfDay);
  return days >= 1 ? std::to_string(days) + " Day(s) plus " + time : time;
}

void WriteRunReport(TMutexRegistry& registry, std::string_view reason) noexcept {
  if (Guarded("WriteRunReport", registry.Clock(), [&] { TryWriteRunReport(registry, reason); })) {
    return;
  }
  registry.ReportingMalfunction = true;
}

void WriteRunReport(std::string_view reason) noexcept { WriteRunReport(MutexRegistry(), reason); }

void SaveActivityReport(std::string_view folder, std::string_view name) noexcept {
  Guarded("SaveActivityReport", SystemClock(), [&] {
    KZCP::Checkpoint("SaveReport");
    const std::string report = KZCP::ThreadReport(KZCP::TReportHeader::With);
    const std::string fileName = ActivityFileName(name, SystemClock().Now());
    WriteActivityReport(JoinPath(RememberedFolder().Choose(folder), fileName), report);
  });
}

}  // namespace guardian
