#pragma once

#include <string>
#include <string_view>

#include "common/FileDescriptor.h"

namespace guardian {

// The pipes' sockets. Each descriptor is close-on-exec from its birth. The paths are those of
// FullPipeNameOf, so they fit; others must not be longer than sockaddr_un's.

// Tries once to connect to a socket file, without blocking. Returns an empty descriptor, and errno
// tells why, when nobody takes the connection.
[[nodiscard]] TFileDescriptor TryConnect(const std::string& path);

// A non-blocking socket that listens at the path, for every user; an old socket file there is
// removed. Returns an empty descriptor, and errno tells why, when that fails.
[[nodiscard]] TFileDescriptor ListenAt(const std::string& path);

// Sends one datagram to the socket file, or to the abstract name when the path begins with a zero
// byte. Never waits: returns false when nobody takes it at once.
[[nodiscard]] bool SendDatagram(const std::string& path, std::string_view bytes);

}  // namespace guardian
