#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Clock.h"
#include "common/ErrorLog.h"
#include "common/Settings.h"
#include "common/Thread.h"
#include "support/Crew.h"
#include "support/ErrorLogInFolder.h"
#include "support/Eventually.h"
#include "support/TempFolder.h"

namespace guardian {

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
