#include "diagnostics/KZLogFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <utility>

#include "common/TextFile.h"
#include "common/Texts.h"
#include "common/WideText.h"

namespace guardian {
namespace {

std::int64_t FileSize(const std::string& name) {
  struct stat status {};
  return ::stat(name.c_str(), &status) == 0 ? std::int64_t{status.st_size} : 0;
}

// A file that cannot be renamed is deleted, so that logging starts afresh. A file that cannot be
// deleted either goes on growing.
void RotateWhenTooLarge(const std::string& name) {
  if (FileSize(name) <= TKZLogFile::kMaxSizeBytes) return;
  const std::string previous = name + "-previous";
  ::unlink(previous.c_str());
  if (::rename(name.c_str(), previous.c_str()) != 0) ::unlink(name.c_str());
}

// Another process may hold the file briefly. Waits after each failed attempt, about a second in
// all.
TFileDescriptor OpenPatiently(const std::string& name, TClock& clock) {
  constexpr int kAttempts = 10;
  constexpr std::chrono::milliseconds kPause(100);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    TFileDescriptor file = OpenTextFile(name, TTextFileOpening::AppendOrCreate);
    if (file) return file;
    clock.Sleep(kPause);
  }
  return {};
}

}  // namespace

TKZLogFile::TKZLogFile(std::string fileName, TClock& clock)
    : FDisabled(fileName.empty()), FClock(clock), FFileName(std::move(fileName)) {
  if (!FDisabled) RotateWhenTooLarge(FFileName);
}

void TKZLogFile::Write(std::string_view text, std::string_view name) {
  if (FDisabled) return;
  const TKZLockGuard lock(FLock);
  ChooseFileLocked(name);
  FormLineLocked(text);
  AppendLineLocked();
}

void TKZLogFile::ChooseFileLocked(std::string_view name) {
  if (name.empty()) return;
  const bool inLogFolder = !FLogFolder.empty() && name.find('/') == std::string_view::npos;
  FFileName = inLogFolder ? JoinPath(FLogFolder, std::string(name) + ".log") : std::string(name);
}

void TKZLogFile::FormLineLocked(std::string_view text) {
  FLine.assign(TimeTextLocked()).append(": ").append(text).push_back('\n');
}

// Local time is slow to compute and format, and lines come in bursts. So the text is made once for
// each second.
const std::string& TKZLogFile::TimeTextLocked() {
  const std::int64_t second =
      std::llround(FClock.UtcNow() * static_cast<TDateTime>(kMillisecondsPerDay)) / 1000;
  if (second != FTimeTextSecond) {
    FTimeText = DateTimeToStr(FClock.Now());
    FTimeTextSecond = second;
  }
  return FTimeText;
}

void TKZLogFile::AppendLineLocked() {
  const TFileDescriptor file = OpenPatiently(FFileName, FClock);
  if (file) static_cast<void>(WriteText(file, FLine));  // A refused line is dropped.
}

void TKZLogFile::WriteLine(std::u16string_view text, std::string_view name) {
  if (FDisabled) return;
  Write(EncodeForCodePage(text, SystemCodePage()), name);
}

void TKZLogFile::SetLogFolder(std::string folder) {
  const TKZLockGuard lock(FLock);
  FLogFolder = std::move(folder);
}

std::string TKZLogFile::FileName() const {
  const TKZLockGuard lock(FLock);
  return FFileName;
}

}  // namespace guardian
