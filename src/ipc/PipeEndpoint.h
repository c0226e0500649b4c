#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/Exceptions.h"
#include "ipc/KZMessages.h"

namespace guardian {

class EPipeException : public KZException {
 public:
  using KZException::KZException;
};

// No pipe: the 32-bit all-ones value widened without sign, not -1. Users of the transport compare
// with this number, so it stays.
inline constexpr std::int64_t kNoPipe = 4'294'967'295;

enum class TPipeContext { pcListener, pcWorker };

// Raised in the main thread, without any lock held. A pipe's number is not given to another
// connection before its disconnect event has been raised.
using TOnPipeConnect = std::function<void(TKZMessageReceiverClass& sender, std::int64_t pipe)>;
using TOnPipeDisconnect = std::function<void(TKZMessageReceiverClass& sender, std::int64_t pipe)>;
using TOnPipeError = std::function<void(TKZMessageReceiverClass& sender, std::int64_t pipe,
                                        TPipeContext context, std::int64_t errorCode)>;
// The payload is valid during the call only.
using TOnPipeMessage = std::function<void(TKZMessageReceiverClass& sender, std::int64_t pipe,
                                          std::string_view payload)>;
// The size is always 0: users rely on nothing else, and the true count stays inside.
using TOnPipeSent =
    std::function<void(TKZMessageReceiverClass& sender, std::int64_t pipe, std::uint32_t size)>;

// The slot of OnPipeSent. Writers look whether it is set before they post a notice of each frame.
// Threads: assigned and called in the main thread; IsSet by any.
class TPipeSentSlot {
 public:
  TPipeSentSlot& operator=(TOnPipeSent handler) {
    FHandler = std::move(handler);
    FSet.store(static_cast<bool>(FHandler));
    return *this;
  }
  [[nodiscard]] bool IsSet() const noexcept { return FSet.load(); }
  [[nodiscard]] const TOnPipeSent& Handler() const noexcept { return FHandler; }

 private:
  TOnPipeSent FHandler;
  std::atomic<bool> FSet = false;  // Atomic: see IsSet.
};

// What the transport's threads post to their owner.
inline constexpr std::uint32_t kMsgPipeErrorListener = 1124;
inline constexpr std::uint32_t kMsgPipeErrorWorker = 1125;
inline constexpr std::uint32_t kMsgPipeConnect = 1126;
inline constexpr std::uint32_t kMsgPipeDisconnect = 1127;
inline constexpr std::uint32_t kMsgPipeSent = 1128;
inline constexpr std::uint32_t kMsgPipeMessage = 1129;
inline constexpr std::uint32_t kMsgPipeWorkerEnded = 1130;  // LParam: the connection's serial.

// A connection with its two threads.
class TPipeWorkers;

// Throws KZException with this text outside the main thread.
void RequireMainThread(const std::string& refusal);

// Inherit this first: its constructor throws outside the main thread, before anything is built.
class TMadeInMainThread {
 protected:
  explicit TMadeInMainThread(const char* refusal) { RequireMainThread(refusal); }
};

// What clients and servers have in common: the events and how the transport's messages raise them.
// An event may free the object that raises it, also while an operation of the object waits further
// down the main thread's stack: that operation then returns.
// Owner: see TPipeClient and TPipeServer.
// Threads: main thread. The slots are set before the first connection; OnPipeSent may be set at any
// time.
class TPipeEndpoint : private TMadeInMainThread, public TKZMessageReceiverClass {
 public:
  TOnPipeError OnPipeError;
  TOnPipeDisconnect OnPipeDisconnect;
  TOnPipeMessage OnPipeMessage;
  TPipeSentSlot OnPipeSent;

 protected:
  using TWorkers = std::shared_ptr<TPipeWorkers>;

  explicit TPipeEndpoint(const char* refusal) : TMadeInMainThread(refusal) {}

  // Throws EPipeException for an empty name, one of 64 characters and more or with a backslash.
  static void RequireValidName(const std::string& name);

  // Expires with the object: what goes on after a wait that runs events looks here first.
  [[nodiscard]] std::weak_ptr<const void> Life() const { return FLife; }

  // Removes the connection from the list and returns it; null when it is not there.
  static TWorkers TakeBySerial(std::vector<TWorkers>& list, std::int64_t serial);
  static TWorkers TakeByPipe(std::vector<TWorkers>& list, std::int64_t pipe);

  // Raises the event of one of the numbers 1124, 1125, 1128 and 1129; nothing for any other. The
  // object may be gone afterwards.
  void RaiseEvent(const TKZMessage& message);
  void RaiseDisconnect(std::int64_t pipe);

 private:
  void RaiseError(const TKZMessage& message, TPipeContext context);
  void RaiseSent(const TKZMessage& message);
  void RaiseMessage(const TKZMessage& message);

  const std::shared_ptr<const void> FLife = std::make_shared<bool>();
};

}  // namespace guardian
