#pragma once

#include <string>

#include "common/FileDescriptor.h"

namespace guardian {

// The pipes' sockets. Each descriptor is close-on-exec from its birth. The paths are those of
// FullPipeNameOf, so they fit.

// Tries once to connect to a socket file, without blocking. Returns an empty descriptor, and errno
// tells why, when nobody takes the connection.
[[nodiscard]] TFileDescriptor TryConnect(const std::string& path);

// A non-blocking socket that listens at the path, for every user; an old socket file there is
// removed. Returns an empty descriptor, and errno tells why, when that fails.
[[nodiscard]] TFileDescriptor ListenAt(const std::string& path);

}  // namespace guardian
