#pragma once

#include <cerrno>
#include <map>
#include <set>
#include <string>

#include "common/Exceptions.h"
#include "guardian/DaemonLookups.h"

namespace guardian {

// A file system of a few named files and folders.
class TFakeFileSystem final : public TFileSystemView {
 public:
  bool FileExists(const std::string& path) const override {
    return Files.contains(path) || Unreadable.contains(path);
  }
  bool DirectoryExists(const std::string& path) const override {
    return Directories.contains(path);
  }
  std::string ReadText(const std::string& path) const override {
    if (Unreadable.contains(path)) throw ESystemError("open", path, EACCES);
    return Files.at(path);
  }

  std::map<std::string, std::string> Files;
  std::set<std::string> Unreadable;
  std::set<std::string> Directories;
};

}  // namespace guardian
