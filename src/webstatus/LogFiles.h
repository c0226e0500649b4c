#pragma once

#include <string>
#include <string_view>

#include "webstatus/HttpServer.h"

namespace guardian {

// Where links to log files begin.
inline constexpr std::string_view kLogLinkFolder = "vellumark_logs";

// Links to the "*.log" files of the folder, newest first by modification time, then by name from
// the last to the first. Empty for an empty folder name. Throws ESystemError when the folder
// cannot be read.
[[nodiscard]] std::string LogFileLinks(const std::string& folder);

// Puts a log file into the answer, as plain text to be streamed. The name is what follows
// kLogLinkFolder in a link, percent-decoded; its character entities are decoded here. Throws
// KZException for anything that is no regular file inside the folder, also through links.
void OpenLogFile(std::string_view linkName, const std::string& folder, THttpResponse& response);

}  // namespace guardian
