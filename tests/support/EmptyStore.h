#pragma once

#include "common/KZCustomINIFile.h"

namespace guardian {

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

}  // namespace guardian
