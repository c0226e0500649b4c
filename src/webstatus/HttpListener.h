#pragma once

#include <cstdint>

#include "common/FileDescriptor.h"

namespace guardian {

// A listening socket, non-blocking and close-on-exec (Asio's own sockets are not close-on-exec).
// One of IPv6 accepts connections of IPv4 too.
struct THttpListener {
  TFileDescriptor Socket;
  bool IsIPv6 = false;
};

// Listens on all addresses of both families, or of IPv4 alone where there is no IPv6. Port 0 takes
// any free port. Throws ESystemError.
[[nodiscard]] THttpListener ListenForHttp(std::uint16_t port);

enum class TAfterAccept { TryNext, WaitForMore, Pause };

// How to go on after a failed accept. Errors of one connection concern only that one. Any other
// error, such as no descriptor left, would come again at once, so the server pauses.
[[nodiscard]] TAfterAccept DecideAfterAcceptError(int error) noexcept;

}  // namespace guardian
