#include "guardian/DaemonLookups.h"

#include <fcntl.h>

#include <cstddef>
#include <filesystem>
#include <system_error>

#include "common/Exceptions.h"
#include "common/FileDescriptor.h"
#include "common/Settings.h"
#include "common/Texts.h"

namespace guardian {
namespace {

class TRealFileSystem final : public TFileSystemView {
 public:
  bool FileExists(const std::string& path) const override {
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    return std::filesystem::exists(status) && !std::filesystem::is_directory(status);
  }

  bool DirectoryExists(const std::string& path) const override {
    std::error_code error;
    return std::filesystem::is_directory(path, error);
  }

  std::string ReadText(const std::string& path) const override {
    constexpr std::size_t kMaxBytes = 16'777'216;
    // Non-blocking: a named pipe at this path must not hold the watchdog.
    const TFileDescriptor file(RetryOnEintr(
        [&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK); }));
    if (!file) throw ESystemError("open", path, errno);
    std::string text;
    if (const int error = ReadToEnd(file.Get(), kMaxBytes, text); error != 0) {
      throw ESystemError("read", path, error);
    }
    return text;
  }
};

std::optional<std::string> ValueOf(std::string_view line, std::string_view prefix) {
  if (!line.starts_with(prefix)) return std::nullopt;
  return std::string(line.substr(prefix.size()));
}

}  // namespace

const TFileSystemView& RealFileSystem() {
  static const TRealFileSystem files;
  return files;
}

std::string DaemonPathBeside(std::string_view ownPath) {
  std::string path = ReplaceAll(ownPath, ".qpkg/VellumarkGuardian/", ".qpkg/VellumarkCL/");
  path = ReplaceAll(path, "/VellumarkGuardian/", "/Vellumark/");
  return ReplaceAll(path, "VellumarkGuardian", "VellumarkCL");
}

TDaemonConfDir FindDaemonConfDir(std::string_view ownPath, const TFileSystemView& files) {
  constexpr const char* kPluginsDir = "/volume1/.@plugins/etc";
  TDaemonConfDir found{"/etc"};
  const std::size_t appStore = ownPath.find("/@appstore/Vellumark/usr/bin");
  if (appStore != std::string_view::npos) {
    const std::string appData = std::string(ownPath.substr(0, appStore + 1)) + "@appdata/Vellumark";
    if (files.DirectoryExists(appData)) found = {appData, true};
  }
  if (!files.FileExists(found.Directory + "/VellumarkCL.conf") &&
      files.DirectoryExists(kPluginsDir)) {
    found.Directory = kPluginsDir;
  }
  return found;
}

const TDaemonConfDir& DaemonConfDir() {
  static const TDaemonConfDir found =
      FindDaemonConfDir(Settings().OwnExecutablePath, RealFileSystem());
  return found;
}

const std::string& GetDaemonConfDir() { return DaemonConfDir().Directory; }

std::vector<std::string> DaemonPathsInConf(std::string_view text) {
  std::vector<std::string> paths;
  for (std::string_view line : Split(text, '\n')) {
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (auto value = ValueOf(line, "daemon=")) paths.push_back(std::move(*value));
  }
  return paths;
}

TDaemonPaths ParseDaemonPaths(std::string_view output) {
  TDaemonPaths paths;
  for (const std::string_view line : Split(output, '\n')) {
    if (auto temp = ValueOf(line, "TMP=")) paths.Temp = std::move(temp);
    if (auto mutex = ValueOf(line, "MUTEX=")) paths.Mutex = std::move(mutex);
    if (auto logs = ValueOf(line, "LOGS=")) paths.Logs = std::move(logs);
  }
  return paths;
}

}  // namespace guardian
