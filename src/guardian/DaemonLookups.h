#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace guardian {

// The part of the file system that the start-up look-ups see.
// Threads: any thread may call anything of the real one.
class TFileSystemView {
 public:
  virtual ~TFileSystemView() = default;

  // True for anything but a directory; false also when it cannot be looked at.
  [[nodiscard]] virtual bool FileExists(const std::string& path) const = 0;
  [[nodiscard]] virtual bool DirectoryExists(const std::string& path) const = 0;

  // The file's contents, at most the first 16 MiB. Throws ESystemError when it cannot be read.
  [[nodiscard]] virtual std::string ReadText(const std::string& path) const = 0;
};

// The machine's file system.
[[nodiscard]] const TFileSystemView& RealFileSystem();

inline constexpr std::string_view kDaemonName = "VellumarkCL";

// The daemon's path as it follows from the Guardian's own, whether a file is there or not: the same
// folder, or the sister folder of a package layout.
[[nodiscard]] std::string DaemonPathBeside(std::string_view ownPath);

struct TDaemonConfDir {
  std::string Directory;
  bool IsAppData = false;  // Taken from the app-store data directory.
};

// The directory that holds "VellumarkCL.conf" for a Guardian at this path.
[[nodiscard]] TDaemonConfDir FindDaemonConfDir(std::string_view ownPath,
                                               const TFileSystemView& files);

// FindDaemonConfDir of this process, looked up on the first call and then unchanged.
[[nodiscard]] const TDaemonConfDir& DaemonConfDir();
[[nodiscard]] const std::string& GetDaemonConfDir();

// The values of all "daemon=" lines of a configuration text, untrimmed and in order; the last one
// counts. Lines end with LF or CR LF.
[[nodiscard]] std::vector<std::string> DaemonPathsInConf(std::string_view text);

// What the daemon answered to "/PATHS". An item that it did not name is absent.
struct TDaemonPaths {
  std::optional<std::string> Temp;
  std::optional<std::string> Mutex;
  std::optional<std::string> Logs;
};

// Lines end with LF only: a CR stays part of the value.
[[nodiscard]] TDaemonPaths ParseDaemonPaths(std::string_view output);

}  // namespace guardian
