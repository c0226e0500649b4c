#include "common/MainThread.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cassert>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <exception>
#include <memory>
#include <utility>

#include "common/Clock.h"
#include "common/Exceptions.h"
#include "common/FileDescriptor.h"
#include "common/Mutex.h"
#include "common/NeverDestroyed.h"
#include "common/Progress.h"

namespace guardian {
namespace {

enum class TRequestState { Waiting, Ran, Refused };

struct TRequest {
  const std::function<void()>* Function = nullptr;  // Lives on the stack of the waiting thread.
  TRequestState State = TRequestState::Waiting;
  std::exception_ptr Error;
};

thread_local bool tIsMainThread = false;

// The process's one queue. Requests are shared: the caller waits for its state to change, the
// main thread changes it.
class TMainThreadQueue {
 public:
  void Open() KZ_EXCLUDES(FLock) {
    if (!FWake) FWake = TFileDescriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!FWake) throw ESystemError("eventfd", "for the main thread", errno);
    FWakeNumber.store(FWake.Get());
    const TMutexLock lock(FLock);
    FOpen = true;
  }

  void Close() KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    FOpen = false;
    for (const auto& request : FRequests) request->State = TRequestState::Refused;
    FRequests.clear();
    FDone.NotifyAll();
  }

  bool Run(const std::function<void()>& function) KZ_EXCLUDES(FLock) {
    const auto request = std::make_shared<TRequest>();
    request->Function = &function;
    {
      const TMutexLock lock(FLock);
      if (!FOpen) return false;
      FRequests.push_back(request);
    }
    // Without the lock, which the woken thread takes at once.
    Wake();
    {
      const TMutexLock lock(FLock);
      while (request->State == TRequestState::Waiting) FDone.Wait(FLock);
    }
    // Moved out of the request, which the main thread may still hold: the exception is freed here.
    if (const std::exception_ptr error = std::exchange(request->Error, nullptr)) {
      std::rethrow_exception(error);
    }
    return request->State == TRequestState::Ran;
  }

  bool RunPending() KZ_EXCLUDES(FLock) {
    // Only the requests that wait now: a caller with a time limit must return even when other
    // threads keep asking.
    std::size_t left = Waiting();
    const bool any = left > 0;
    if (any) NoteProgress("MainLoop:Request");
    for (; left > 0; --left) {
      const auto request = Take();
      if (!request) break;
      try {
        (*request->Function)();
      } catch (...) {
        request->Error = std::current_exception();
      }
      {
        const TMutexLock lock(FLock);
        request->State = TRequestState::Ran;
      }
      FDone.NotifyAll();
    }
    return any;
  }

  // Waits for Wake, which may have come before; returns at the latest after the timeout.
  void WaitForWake(std::chrono::milliseconds timeout) {
    pollfd wake{.fd = FWakeNumber.load(), .events = POLLIN, .revents = 0};
    if (::poll(&wake, 1, static_cast<int>(timeout.count())) <= 0) return;
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = ::read(wake.fd, &count, sizeof(count));
  }

  void Wake() noexcept {
    const int savedErrno = errno;
    const std::uint64_t one = 1;
    // Fails only when no queue was opened yet, or when the wake-up is pending already.
    [[maybe_unused]] const ssize_t written = ::write(FWakeNumber.load(), &one, sizeof(one));
    errno = savedErrno;
  }

 private:
  std::size_t Waiting() KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    return FRequests.size();
  }

  std::shared_ptr<TRequest> Take() KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    if (FRequests.empty()) return nullptr;
    auto request = FRequests.front();
    FRequests.pop_front();
    return request;
  }

  TFileDescriptor FWake;  // Main thread only; kept from the first Open to the end of the process.
  std::atomic<int> FWakeNumber = -1;  // Atomic: read by every waker, also in signal handlers.
  TMutex FLock;
  bool FOpen KZ_GUARDED_BY(FLock) = false;
  std::deque<std::shared_ptr<TRequest>> FRequests KZ_GUARDED_BY(FLock);
  TCondition FDone;
};

// Never destroyed: threads may still wake it while the process ends.
TMainThreadQueue& Queue() {
  static TNeverDestroyed<TMainThreadQueue> queue;
  return *queue;
}

}  // namespace

void BindMainThread() {
  tIsMainThread = true;
  Queue().Open();
}

void CloseMainThreadQueue() {
  assert(IsMainThread());
  Queue().Close();
}

bool IsMainThread() noexcept { return tIsMainThread; }

bool Synchronize(const std::function<void()>& function) {
  if (!IsMainThread()) return Queue().Run(function);
  function();
  return true;
}

bool CheckSynchronize(std::chrono::milliseconds timeout) {
  if (!IsMainThread()) {
    SystemClock().Sleep(timeout);
    return false;
  }
  if (Queue().RunPending()) return true;
  Queue().WaitForWake(timeout);
  return Queue().RunPending();
}

void SleepSynchronizing(std::chrono::milliseconds duration) {
  const std::int64_t end = SystemTickCount() + duration.count();
  for (std::int64_t now = SystemTickCount(); now < end; now = SystemTickCount()) {
    CheckSynchronize(std::chrono::milliseconds(end - now));
  }
}

void WakeMainThread() noexcept { Queue().Wake(); }

}  // namespace guardian
