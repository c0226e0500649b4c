#include "common/Cancellation.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

#include "common/Exceptions.h"

namespace guardian {

TCancellation::TCancellation() : FEvent(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!FEvent) throw ESystemError("eventfd", "for a cancellation", errno);
}

void TCancellation::Cancel() noexcept {
  const int savedErrno = errno;
  FCancelled.store(true);
  const std::uint64_t one = 1;
  // Fails only when the counter is full, and then the descriptor is readable already.
  [[maybe_unused]] const ssize_t written = ::write(FEvent.Get(), &one, sizeof(one));
  errno = savedErrno;
}

}  // namespace guardian
