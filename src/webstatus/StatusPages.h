#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "webstatus/GuardianControl.h"
#include "webstatus/HttpMessage.h"
#include "webstatus/LogDownloads.h"
#include "webstatus/RequestGuard.h"

namespace guardian {

// What the pages are built from. Everything outlives the request. Without a Guardian the pages
// leave its items out; Port is empty when there is no HTTP server.
struct TPageSources {
  TGuardianControl* Guardian = nullptr;
  std::function<void()> TerminateGuardian;  // Asks the application to end; returns at once.
  std::optional<std::uint16_t> Port;
  const TRequestGuard* Guard = nullptr;  // None: every request is obeyed.
  const TLogFolder* Logs = nullptr;      // None: the overview shows no log files.
};

// The answer to a request. A failure becomes a message at the end of the page. Blocks only for
// access to files.
// Threads: any, several at once.
[[nodiscard]] THttpResponse BuildPage(const THttpRequest& request, const TPageSources& sources);

// Whether the page reads files or waits for other threads, and so may take its time.
[[nodiscard]] bool PageMayBlock(const THttpRequest& request);

// The common head of the pages; short answers have none.
[[nodiscard]] std::string PageHeader(std::string_view title);

}  // namespace guardian
