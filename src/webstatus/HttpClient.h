#pragma once

#include <chrono>
#include <string>

#include "common/Exceptions.h"

namespace guardian {

// No connection could be made to the address.
class EHttpUnreachable : public SoftException {
 public:
  using SoftException::SoftException;
};

struct THttpAnswer {
  int Status = 0;
  std::string Body;
};

// Fetches "host:port/path", as in "localhost:8900/status.php", by HTTP GET. The host is
// "localhost" (127.0.0.1, then ::1), an IPv4 address or an IPv6 address in brackets; names are not
// looked up. The path is sent unchanged.
// Blocks for at most the timeout, which covers the whole exchange; starts no thread and leaves no
// descriptor open. Throws EHttpUnreachable when no connection can be made, SoftException for a
// malformed address, a broken connection, a time-out, an answer that is not HTTP, a status of 400
// or above, a header above 64 KiB and a body above 16 MiB.
// Threads: any.
[[nodiscard]] THttpAnswer HttpGet(const std::string& address, std::chrono::milliseconds timeout);

}  // namespace guardian
