#pragma once

#include <string>
#include <string_view>

#include "webstatus/HttpServer.h"

namespace guardian {

// The first part of a link to a log file.
inline constexpr std::string_view kLogLinkFolder = "vellumark_logs";

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
