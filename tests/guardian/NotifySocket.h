#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "common/FileDescriptor.h"

namespace guardian {

// Where a service manager listens: at a path, or at an abstract name that begins with "@".
inline TFileDescriptor NotifySocketAt(const std::string& name) {
  TFileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{AF_UNIX, {}};
  name.copy(address.sun_path, name.size());
  if (name.front() == '@') address.sun_path[0] = '\0';
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  EXPECT_EQ(::bind(socket.Get(), reinterpret_cast<sockaddr*>(&address), length), 0);
  return socket;
}

// The next datagram; empty when none waits.
inline std::string ReceivedNotice(const TFileDescriptor& socket) {
  char bytes[4'096] = {};
  return ::recv(socket.Get(), bytes, sizeof(bytes) - 1, MSG_DONTWAIT) < 0 ? "" : bytes;
}

}  // namespace guardian
