#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace guardian {

// What the look-ups before the first check see of the file system.
// Threads: any thread may call anything of the machine's file system.
class TFileSystemView {
 public:
  virtual ~TFileSystemView() = default;

  // Whether something other than a directory is there; false also when it cannot be looked at.
  [[nodiscard]] virtual bool FileExists(const std::string& path) const = 0;
  [[nodiscard]] virtual bool DirectoryExists(const std::string& path) const = 0;

  // The file's contents, at most the first 16 MiB. Throws ESystemError when it cannot be read.
  [[nodiscard]] virtual std::string ReadText(const std::string& path) const = 0;
};

// The machine's file system.
[[nodiscard]] const TFileSystemView& RealFileSystem();

inline constexpr std::string_view kDaemonName = "VellumarkCL";

// Derives the daemon's path from the Guardian's own: the same folder, or the sister folder of a
// package layout. Does not look whether a file is there.
[[nodiscard]] std::string DaemonPathBeside(std::string_view ownPath);

struct TDaemonConfDir {
  std::string Directory;
  // The app-store data directory is there. Kept for the maker's other programs; the Guardian itself
  // uses the directory alone.
  bool IsAppData = false;
};

// The directory that holds "VellumarkCL.conf" for a Guardian at this path.
[[nodiscard]] TDaemonConfDir FindDaemonConfDir(std::string_view ownPath,
                                               const TFileSystemView& files);

// FindDaemonConfDir of this process, looked up on the first call and then unchanged.
[[nodiscard]] const TDaemonConfDir& DaemonConfDir();
[[nodiscard]] const std::string& GetDaemonConfDir();

// The values of all "daemon=" lines of a configuration text, untrimmed and in order; the caller
// uses the last. Lines end with LF or CR LF.
[[nodiscard]] std::vector<std::string> DaemonPathsInConf(std::string_view text);

// The directories that the daemon named in its answer to "/PATHS".
struct TDaemonPaths {
  std::optional<std::string> Temp;
  std::optional<std::string> Mutex;
  std::optional<std::string> Logs;
};

// The last line of each kind counts. Lines end with LF only: a CR stays part of the value.
[[nodiscard]] TDaemonPaths ParseDaemonPaths(std::string_view output);

}  // namespace guardian
