#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "common/Thread.h"
#include "ipc/PayloadPool.h"

namespace guardian {

struct TKZMessage {
  std::uint32_t Msg = 0;
  std::int64_t WParam = 0;
  std::int64_t LParam = 0;
  std::int64_t Result = 0;  // The third parameter.
};

// The base of every object that receives posted messages.
// Owner: anyone, but destroyed in the main thread, unless nothing was ever posted to it.
// Threads: WndMethod runs in the main thread, one message at a time, in the order of posting.
// Lifetime: outlives the threads that post to it; messages still queued for it are dropped when it
// goes. A derived class whose destructor lets the main thread deliver (it waits with synchronise
// running) calls RemoveMessagesFor first and keeps its posters from posting more.
class TKZMessageReceiverClass {
 public:
  TKZMessageReceiverClass() = default;
  virtual ~TKZMessageReceiverClass();
  TKZMessageReceiverClass(const TKZMessageReceiverClass&) = delete;
  TKZMessageReceiverClass& operator=(const TKZMessageReceiverClass&) = delete;

  // What it throws is logged and reported; later messages are delivered all the same.
  virtual void WndMethod(TKZMessage& message) = 0;
};

// Starts the unit: messages are taken and delivered until StopMessages. Does nothing when the unit
// is started. Throws ESystemError, and the unit is then not started. Main thread, after the
// application object was created; without it the delivery thread ends after its first round.
void StartMessages();

// Stops the unit: synchronous calls return, at most about a second is spent on that, then the
// delivery thread ends, waited for at most three seconds; messages still queued are dropped. Runs
// synchronise requests meanwhile. Main thread, and not from within a message.
void StopMessages();

// Queues a message for the receiver. Never blocks beyond the list's lock. Drops the message
// silently while the unit is not started. Any thread.
void PostMessage(TKZMessageReceiverClass& receiver, std::uint32_t msg, std::int64_t wParam,
                 std::int64_t lParam, std::int64_t result);

// The same with bytes: LParam is their address and Result their number, valid until WndMethod
// returns.
void PostMessage(TKZMessageReceiverClass& receiver, std::uint32_t msg, std::int64_t wParam,
                 TMessagePayload payload);

struct TMessageWrapper;

// A message of which the memory is there beforehand, for news that no lack of memory may keep from
// the receiver. Can be posted once; dropped as others are while the unit is not started. Threads:
// not shared.
class TReservedMessage {
 public:
  TReservedMessage();
  ~TReservedMessage();
  TReservedMessage(const TReservedMessage&) = delete;
  TReservedMessage& operator=(const TReservedMessage&) = delete;

  void Post(TKZMessageReceiverClass& receiver, std::uint32_t msg, std::int64_t wParam,
            std::int64_t lParam) noexcept;

 private:
  std::unique_ptr<TMessageWrapper> FWrapper;
};

// The bytes of a message that was posted with a payload.
[[nodiscard]] std::string_view MessagePayload(const TKZMessage& message) noexcept;

// Runs the method in the main thread, in its turn among the messages, and returns when it has run:
// true also when it threw, which is reported like a receiver's exception. False, and it will never
// run, when the unit is not started or stops, or when the application terminates, in which case it
// returns within half a second unless the method has begun. In the main thread it runs at once.
// It would wait for ever if called from a thread that the main thread waits for without running
// synchronise requests.
bool CallInMainThread(std::function<void()> method);

// Delivers everything queued, for about 50 ms also what is posted meanwhile; nothing while the
// application is absent or terminating or the delivery is stopped. Main thread, also within a
// message: the inner call goes on where the outer one was.
void ProcessMessages();

// Drops what is queued for the receiver. Main thread.
void RemoveMessagesFor(const TKZMessageReceiverClass& receiver);

// Messages are taken but not delivered until ResumeDelivery. Any thread.
void StopDelivery() noexcept;
void ResumeDelivery();
[[nodiscard]] bool DeliveryStopped() noexcept;

// Since StartMessages.
struct TMessageStatistics {
  std::int64_t Delivered = 0;
  std::int64_t LatencySumMs = 0;  // Time in the queue, of all delivered messages together.
};
[[nodiscard]] TMessageStatistics MessageStatistics() noexcept;

// Sets what reports an exception that escaped a receiver or a callback, besides the line in the
// error log; an empty function reports nothing. Main thread.
using TMessageExceptionReporter =
    std::function<void(std::exception_ptr error, const std::string& title)>;
void SetMessageExceptionReporter(TMessageExceptionReporter reporter);

enum class TThreadCreation {
  Running,    // Starts as soon as it is constructed.
  Suspended,  // Starts with Start.
};

// The base of worker threads: a thread with an exit code, which releases its checkpoint record at
// its end.
// Owner: the caller of CreateThread.
// Threads: as TThread; the exit code may be set by the thread itself and read by any.
// Lifetime: as TThread; a derived class calls Join in its destructor.
class TKZThread : public TThread {
 public:
  TKZThread(TThreadCreation creation, std::string name);
  ~TKZThread() override { Join(); }

  // Starts the thread unless it was created suspended; CreateThread calls it, because a constructor
  // cannot start what its derived class has not built yet.
  void AfterConstruction();

  // Waits until the thread has finished, at most the given time; in the main thread the wait runs
  // synchronise requests. Returns the exit code of a finished thread, else -1.
  int WaitFor(std::chrono::milliseconds timeout);

 protected:
  // For a thread that looks around once a second beside waiting for an event: each of its timed
  // waits may last 20 ms longer. An event that comes once a second too then spares the look that
  // would just have preceded it, and a look may share the wake-up of another.
  static void LetLooksBeLate() noexcept;

  void SetExitCode(int exitCode) noexcept { FExitCode.store(exitCode); }
  void OnFinished() override;

 private:
  const TThreadCreation FCreation;
  std::atomic<int> FExitCode = 0;  // Atomic: set by the thread, read by those who wait for it.
};

// Creates a thread and starts it unless it is to be suspended. Throws ESystemError when it cannot
// be started.
template <typename TThreadClass, typename... TArguments>
std::unique_ptr<TThreadClass> CreateThread(TArguments&&... arguments) {
  auto thread = std::make_unique<TThreadClass>(std::forward<TArguments>(arguments)...);
  thread->AfterConstruction();
  return thread;
}

}  // namespace guardian
