// The baseline of a watched hour: a loop that waits, receives the daemon's records, looks at its
// mutex every 10 seconds, and does nothing with either.
//   bare_watcher FOLDER   FOLDER holds the mutex and the pipe

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <string>

namespace {

using TSteady = std::chrono::steady_clock;

int Connect(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  return ::connect(socket, generic, sizeof(address)) == 0 ? socket : -1;
}

bool IsHeld(const std::string& mutex) {
  const int file = ::open((mutex + ".lock").c_str(), O_RDWR | O_CLOEXEC);
  const bool held = file >= 0 && ::flock(file, LOCK_EX | LOCK_NB) != 0;
  ::close(file);
  return held;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return EXIT_FAILURE;
  const std::string mutex = std::string(argv[1]) + "/vellumark$qrnd$schedulermutex";
  pollfd pipe{Connect(mutex), POLLIN, 0};
  auto tick = TSteady::now();
  std::array<char, 4096> buffer;
  while (pipe.fd >= 0) {
    tick += std::chrono::seconds(10);
    if (!IsHeld(mutex)) return EXIT_FAILURE;
    for (auto now = TSteady::now(); now < tick; now = TSteady::now()) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(tick - now);
      if (::poll(&pipe, 1, static_cast<int>(left.count())) == 0) continue;
      if (::read(pipe.fd, buffer.data(), buffer.size()) <= 0) return EXIT_FAILURE;
    }
  }
  return EXIT_FAILURE;
}
