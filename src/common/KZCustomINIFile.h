#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace guardian {

// Settings as sections of named values. The comment of each store's own class says what it does on
// failure, and which threads may call it.
class TKZCustomINIFile {
 public:
  TKZCustomINIFile() = default;
  TKZCustomINIFile(const TKZCustomINIFile&) = delete;
  TKZCustomINIFile& operator=(const TKZCustomINIFile&) = delete;
  virtual ~TKZCustomINIFile() = default;

  // The value, or the default when there is none.
  [[nodiscard]] virtual std::string ReadString(std::string_view section, std::string_view key,
                                               std::string_view defaultValue) = 0;
  virtual void WriteString(std::string_view section, std::string_view key,
                           std::string_view value) = 0;

  // The keys of a section, sorted.
  [[nodiscard]] virtual std::vector<std::string> ReadSection(std::string_view section) = 0;
  // The sections that hold at least one key.
  [[nodiscard]] virtual std::vector<std::string> ReadSections() = 0;
  // Lines of the form key=value, sorted by key.
  [[nodiscard]] virtual std::vector<std::string> ReadSectionValues(std::string_view section) = 0;
  [[nodiscard]] virtual bool ValueExists(std::string_view section, std::string_view key) = 0;

  virtual void DeleteKey(std::string_view section, std::string_view key) = 0;
  // Deletes the keys of a section.
  virtual void EraseSection(std::string_view section) = 0;
  // Makes what was written so far durable.
  virtual void UpdateFile() = 0;
};

}  // namespace guardian
