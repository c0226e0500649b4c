#pragma once

#include <string>

namespace guardian {

// The stand-in's own directory, which holds all of its state.
// Threads: immutable after construction.
class THome {
 public:
  // The directory that the environment variable VELLUMARKCL_HOME names; without it "VellumarkCL.d"
  // beside the executable. Creates no directory.
  [[nodiscard]] static THome FromEnvironment();

  explicit THome(std::string path);

  // Creates the directory and its folders where they are missing. Throws
  // std::filesystem::filesystem_error.
  void CreateFolders() const;

  // Whether the directory is still there.
  [[nodiscard]] bool Exists() const noexcept;

  [[nodiscard]] std::string TempFolder() const { return FPath + "/tmp"; }
  [[nodiscard]] std::string MutexFolder() const { return FPath + "/mutex"; }
  [[nodiscard]] std::string LogFolder() const { return FPath + "/logs"; }
  [[nodiscard]] std::string FaultsFile() const { return FPath + "/faults"; }

  // These files are not named after the daemon: a program that has such a name on its command line,
  // like a viewer of the log, would look like the daemon in a process list.
  [[nodiscard]] std::string PidFile() const { return FPath + "/daemon.pid"; }
  [[nodiscard]] std::string LogFile() const { return LogFolder() + "/daemon.log"; }

 private:
  std::string FPath;  // Absolute, without a slash at its end.
};

}  // namespace guardian
