#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Clock.h"
#include "common/Settings.h"
#include "common/Thread.h"
#include "diagnostics/ErrorLog.h"
#include "support/TempFolder.h"

namespace guardian {

// Waits until the condition holds; the limit only ends a test that hangs.
inline bool Eventually(const std::function<bool()>& condition) {
  const std::int64_t giveUp = SystemTickCount() + 30'000;
  while (!condition()) {
    if (SystemTickCount() > giveUp) return false;
    SystemClock().Sleep(std::chrono::milliseconds(1));
  }
  return true;
}

// Runs the function in a thread of its own, to its end.
inline void InThread(std::function<void()> work) {
  TFunctionThread thread("Test", std::move(work));
  thread.Start();
  thread.Join();
}

// An error log in a fresh folder, for one test.
class TErrorLogInFolder {
 public:
  TErrorLogInFolder() { EXPECT_TRUE(ErrorLog().Open(FFolder.Path("error.log"))); }
  ~TErrorLogInFolder() { ErrorLog().Close(); }
  TErrorLogInFolder(const TErrorLogInFolder&) = delete;
  TErrorLogInFolder& operator=(const TErrorLogInFolder&) = delete;

  [[nodiscard]] std::string Text() const { return FFolder.Read("error.log"); }
  [[nodiscard]] const TTempFolder& Folder() const { return FFolder; }

 private:
  TTempFolder FFolder;
};

// The names in a folder, sorted.
inline std::vector<std::string> NamesIn(const TTempFolder& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder.Path())) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// Whether the text has the shape at the position; a "9" stands for any digit.
inline bool HasShapeAt(std::string_view text, std::size_t position, std::string_view shape) {
  if (text.size() - position < shape.size()) return false;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    const char c = text[position + i];
    if (shape[i] == '9' ? (c < '0' || c > '9') : c != shape[i]) return false;
  }
  return true;
}

// The text with every date-time as "<date>" and every other time of day as "<time>".
inline std::string WithoutTimes(const std::string& text) {
  constexpr std::string_view kDate = "9999-99-99 99:99:99";
  constexpr std::string_view kTime = "99:99:99";
  std::string result;
  for (std::size_t i = 0; i < text.size();) {
    const bool date = HasShapeAt(text, i, kDate);
    const bool time = !date && HasShapeAt(text, i, kTime);
    if (date) result += "<date>";
    if (time) result += "<time>";
    if (!date && !time) result += text[i];
    i += date ? kDate.size() : time ? kTime.size() : 1;
  }
  return result;
}

}  // namespace guardian
