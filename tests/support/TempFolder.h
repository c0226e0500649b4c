#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace guardian {

// A fresh folder that is removed with its contents at the end.
class TTempFolder {
 public:
  explicit TTempFolder(
      const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
    std::string pattern = (parent / "kzt-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp " + pattern);
    FPath = pattern;
  }
  ~TTempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(FPath, ignored);
  }
  TTempFolder(const TTempFolder&) = delete;
  TTempFolder& operator=(const TTempFolder&) = delete;

  [[nodiscard]] std::string Path() const { return FPath; }
  [[nodiscard]] std::string Path(const std::string& name) const { return FPath + "/" + name; }

  void Write(const std::string& name, const std::string& text) const {
    std::ofstream(Path(name), std::ios::binary) << text;
  }

  [[nodiscard]] std::string Read(const std::string& name) const {
    std::ostringstream text;
    text << std::ifstream(Path(name), std::ios::binary).rdbuf();
    return text.str();
  }

  [[nodiscard]] bool Has(const std::string& name) const {
    return std::filesystem::exists(Path(name));
  }

 private:
  std::string FPath;
};

}  // namespace guardian
