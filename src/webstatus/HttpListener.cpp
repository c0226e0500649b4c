#include "webstatus/HttpListener.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <string>
#include <utility>

#include "common/Exceptions.h"

namespace guardian {
namespace {

TFileDescriptor OpenSocket(int family) {
  return TFileDescriptor(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

bool SetOption(const TFileDescriptor& socket, int level, int option, int value) {
  return ::setsockopt(socket.Get(), level, option, &value, sizeof(value)) == 0;
}

// Returns no socket when there is no IPv6.
TFileDescriptor OpenDualStackSocket() {
  TFileDescriptor socket = OpenSocket(AF_INET6);
  if (socket && !SetOption(socket, IPPROTO_IPV6, IPV6_V6ONLY, 0)) socket.Close();
  return socket;
}

// Returns 0 or the error number. With address reuse a restarted server gets its port back while
// old connections are still in the state TIME_WAIT; two listeners still cannot share a port.
template <typename TAddress>
int BindAndListen(const TFileDescriptor& socket, const TAddress& address) {
  if (!SetOption(socket, SOL_SOCKET, SO_REUSEADDR, 1)) return errno;
  if (::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    return errno;
  }
  return ::listen(socket.Get(), SOMAXCONN) == 0 ? 0 : errno;
}

sockaddr_in6 AnyIPv6(std::uint16_t port) {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(port);
  address.sin6_addr = in6addr_any;
  return address;
}

sockaddr_in AnyIPv4(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  return address;
}

}  // namespace

THttpListener ListenForHttp(std::uint16_t port) {
  const std::string object = "port " + std::to_string(port);
  if (TFileDescriptor socket = OpenDualStackSocket()) {
    const int error = BindAndListen(socket, AnyIPv6(port));
    if (error == 0) return {std::move(socket), true};
    if (error != EADDRNOTAVAIL && error != EAFNOSUPPORT) {
      throw ESystemError("Listen on", object, error);
    }
  }
  TFileDescriptor socket = OpenSocket(AF_INET);
  if (!socket) throw ESystemError("Create socket for", object, errno);
  const int error = BindAndListen(socket, AnyIPv4(port));
  if (error != 0) throw ESystemError("Listen on", object, error);
  return {std::move(socket), false};
}

TAfterAccept DecideAfterAcceptError(int error) noexcept {
  switch (error) {
    case EAGAIN:
      return TAfterAccept::WaitForMore;
    case ECONNABORTED:
    case EPROTO:
    case ENETDOWN:
    case ENETUNREACH:
    case EHOSTDOWN:
    case EHOSTUNREACH:
    case ENOPROTOOPT:
    case ENONET:
      return TAfterAccept::TryNext;
    default:
      return TAfterAccept::Pause;
  }
}

}  // namespace guardian
