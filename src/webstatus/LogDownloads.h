#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "common/LookThread.h"
#include "webstatus/HttpServer.h"

namespace guardian {

// The first part of a link to a log file.
inline constexpr std::string_view kLogLinkFolder = "vellumark_logs";

struct TLogFile {
  bool operator<(const TLogFile& other) const {
    return std::tie(ModifiedNs, Name) < std::tie(other.ModifiedNs, other.Name);
  }

  std::int64_t ModifiedNs = 0;  // Of Unix time.
  std::string Name;
  std::uint64_t Size = 0;
};

// The log files of a folder at one moment: of many the newest, the newest first.
struct TLogList {
  std::string Problem;  // Why there is no list; empty when there is one.
  std::vector<TLogFile> Files;
  bool StandsStill = false;  // For five seconds the folder has not said what is in it now.
};

// The newest files of LogFileLinks. A folder that cannot be read is a problem, and an empty name an
// empty list.
[[nodiscard]] TLogList ListLogFiles(const std::string& folder);

// The link to a log file, as it stands in a page.
[[nodiscard]] std::string LogFileLink(const std::string& name);

// Looks for the log files in a thread of its own, so that a folder that stands still holds no page.
// Owner: the web status server.
// Threads: any thread calls Seen.
// Lifetime: the destructor leaves a look that stands still behind.
class TLogFolder {
 public:
  TLogFolder();
  ~TLogFolder();
  TLogFolder(const TLogFolder&) = delete;
  TLogFolder& operator=(const TLogFolder&) = delete;

  // The list of the last second; an older one when the folder does not answer within 100 ms.
  [[nodiscard]] TLogList Seen() const;

 private:
  std::unique_ptr<TLookThread<TLogList>> FLooks;
};

// Links to the "*.log" files of the folder, by modification time from the newest to the oldest;
// files of the same time by name from the last to the first. Empty when the folder's name is empty.
// Throws ESystemError when the folder cannot be read.
// Threads: any.
[[nodiscard]] std::string LogFileLinks(const std::string& folder);

// Opens a log file and puts it into the answer, which then streams it as plain text. The link name
// is the part of a link after kLogLinkFolder, percent-decoded; its character entities are decoded
// here. Throws KZException for anything that is not a regular file inside the folder, also when a
// symbolic link leads there.
// Threads: any.
void OpenLogFile(std::string_view linkName, const std::string& folder, THttpResponse& response);

}  // namespace guardian
