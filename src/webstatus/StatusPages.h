#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "webstatus/GuardianControl.h"
#include "webstatus/HttpServer.h"

namespace guardian {

// What the pages are built from. Everything outlives the request.
struct TPageSources {
  TGuardianControl* Guardian = nullptr;     // None: the pages leave its items out.
  std::function<void()> TerminateGuardian;  // Asks the application to end; returns at once.
  std::optional<std::uint16_t> Port;        // Of the HTTP server, while it exists.
};

// The answer to a request. What goes wrong is the end of the page's text.
// Threads: any, several at once; blocks for file access only.
[[nodiscard]] THttpResponse BuildPage(const THttpRequest& request, const TPageSources& sources);

// The head that every page of more than a few words begins with.
[[nodiscard]] std::string PageHeader(std::string_view title);

}  // namespace guardian
