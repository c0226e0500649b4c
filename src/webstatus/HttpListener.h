#pragma once

#include <cstdint>

#include "common/FileDescriptor.h"

namespace guardian {

// A listening socket, close-on-exec, which Asio's own are not, and non-blocking.
struct THttpListener {
  TFileDescriptor Socket;
  bool IsIPv6 = false;  // And so for IPv4 too.
};

// Listens on all addresses of both families, on those of IPv4 where there is no IPv6. 0 takes any
// free port. Throws ESystemError.
[[nodiscard]] THttpListener ListenForHttp(std::uint16_t port);

enum class TAfterAccept { TryNext, WaitForMore, Pause };

// What a failed accept calls for. Everything that is not known to pass, such as no descriptor left,
// would fail again at once.
[[nodiscard]] TAfterAccept DecideAfterAcceptError(int error) noexcept;

}  // namespace guardian
