#include "ipc/PipeSockets.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace guardian {
namespace {

// A socket address with its length: the family and the path, without a terminating zero.
class TAddress {
 public:
  explicit TAddress(const std::string& path)
      : FLength(static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size())) {
    FAddress.sun_family = AF_UNIX;
    std::memcpy(static_cast<char*>(FAddress.sun_path), path.data(), path.size());
  }

  [[nodiscard]] const sockaddr* Generic() const {
    return reinterpret_cast<const sockaddr*>(&FAddress);
  }
  [[nodiscard]] socklen_t Length() const { return FLength; }

 private:
  sockaddr_un FAddress{};
  const socklen_t FLength;
};

TFileDescriptor MakeSocket(int type = SOCK_STREAM) {
  return TFileDescriptor(::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

}  // namespace

TFileDescriptor TryConnect(const std::string& path) {
  // Non-blocking: a server that does not accept, and whose queue is full, would block for ever.
  TFileDescriptor socket = MakeSocket();
  const TAddress address(path);
  // The call fails too for a socket that could not be made.
  if (::connect(socket.Get(), address.Generic(), address.Length()) != 0) return {};
  // From here on the writer's calls shall block until all is taken.
  const int flags = ::fcntl(socket.Get(), F_GETFL);
  if (::fcntl(socket.Get(), F_SETFL, flags & ~O_NONBLOCK) != 0) return {};
  return socket;
}

TFileDescriptor ListenAt(const std::string& path) {
  constexpr int kBacklog = 1024;
  constexpr mode_t kEveryUser = 0777;
  ::unlink(path.c_str());
  TFileDescriptor listener = MakeSocket();
  const TAddress address(path);
  if (!listener || ::bind(listener.Get(), address.Generic(), address.Length()) != 0) return {};
  if (::chmod(path.c_str(), kEveryUser) == 0 && ::listen(listener.Get(), kBacklog) == 0) {
    return listener;
  }
  const int error = errno;
  ::unlink(path.c_str());
  errno = error;
  return {};
}

bool SendDatagram(const std::string& path, std::string_view bytes) {
  const TFileDescriptor socket = MakeSocket(SOCK_DGRAM);
  const TAddress address(path);
  return ::sendto(socket.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                  address.Generic(), address.Length()) >= 0;
}

}  // namespace guardian
