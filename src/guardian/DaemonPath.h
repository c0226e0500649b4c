#pragma once

#include <memory>
#include <string>

#include "common/LookThread.h"
#include "common/SharedText.h"
#include "guardian/DaemonLookups.h"

namespace guardian {

struct TDaemonPathSeen {
  std::string Path;
  bool Exists = false;
};

// Where the daemon's executable lies: beside the Guardian, or where the configuration says.
//
// The watchdog looks with Get, the pages look with Seen. For both a thread of its own asks the file
// system: a path on a dead network mount holds that thread alone.
// Owner: the guardian service.
// Threads: one thread at a time calls Get, any calls Seen.
// Lifetime: the file system outlives it, and the process when a look stands still.
class TDaemonPath {
 public:
  // Where to look.
  struct TPlaces {
    std::string Own;
    std::string Beside;
    std::string FromConf;
  };

  // The Guardian's executable and the folder of the configuration, as full paths. Throws
  // ESystemError when the thread cannot be started.
  TDaemonPath(std::string ownPath, std::string confDir, const TFileSystemView& files);
  ~TDaemonPath();
  TDaemonPath(const TDaemonPath&) = delete;
  TDaemonPath& operator=(const TDaemonPath&) = delete;

  // The path to act on: derived from the Guardian's own path; what the configuration says when no
  // file is there, or when the derived path is the Guardian's own, as it is for a renamed Guardian.
  // The configuration is read when it is first needed, and again after a failure. Throws
  // SoftException when it cannot be read, when the file system does not answer within 5 seconds,
  // and when the path is the Guardian's own after all.
  [[nodiscard]] std::string Get();

  // The path by the file system of the last tenth of a second and the configuration as far as it
  // was read. Blocks for at most 100 milliseconds: a look that takes longer gives its result to a
  // later call, and this one returns that of the last look.
  [[nodiscard]] TDaemonPathSeen Seen() const;

 private:
  void ReadConf();
  std::string TextOfConf() const;

  const std::string FOwnPath;
  const std::string FConfFile;
  const TFileSystemView& FFiles;
  const std::shared_ptr<TShared<TPlaces>> FPlaces;  // Shared with a thread that is left behind.
  std::unique_ptr<TLookThread<TDaemonPathSeen>> FLooks;

  // Used by Get alone.
  bool FConfRead = false;
  std::string FPathFromConf;
};

}  // namespace guardian
