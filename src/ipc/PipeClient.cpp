#include "ipc/PipeClient.h"

#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <chrono>
#include <functional>
#include <utility>

#include "common/AtEnd.h"
#include "common/Clock.h"
#include "common/MainThread.h"
#include "diagnostics/KZCheckpoints.h"
#include "ipc/PipeDirectory.h"
#include "ipc/PipeSockets.h"
#include "ipc/PipeThreads.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;

// Sleeps with synchronise requests running in the main thread; ends early when it is to stop.
void SleepBetweenTries(milliseconds duration, const std::function<bool()>& isToStop) {
  constexpr milliseconds kStep{50};
  const std::int64_t end = SystemTickCount() + duration.count();
  while (SystemTickCount() < end && !isToStop()) CheckSynchronize(std::min(kStep, duration));
}

TFileDescriptor ConnectWithin(const std::string& path, int waitMs,
                              const std::function<bool()>& isToStop) {
  constexpr int kTryIntervalMs = 500;
  for (int failed = 0;;) {
    TFileDescriptor socket = TryConnect(path);
    if (socket || ++failed > waitMs / kTryIntervalMs) return socket;
    SleepBetweenTries(milliseconds(std::min(waitMs, kTryIntervalMs)), isToStop);
    if (isToStop()) return {};
  }
}

void TerminateMarked(TKZThread& thread, std::string_view failed) {
  try {
    thread.Terminate();
  } catch (...) {
    KZCP::Checkpoint(failed);
  }
}

}  // namespace

TPipeClient::TPipeClient(const TCancellation* stopping)
    : TPipeEndpoint("Must be in main thread to create a TPipeClient."), FStopping(stopping) {}

TPipeClient::~TPipeClient() {
  assert(IsMainThread());
  // From here on WndMethod does nothing, also while the threads are joined.
  FRegistration.End();
  std::vector<TWorkers> ending;
  TWorkers current;
  {
    const TKZLockGuard lock(FLock);
    ending = std::move(FEnding);
    current = std::move(FCurrent);
  }
  // Joined here: the last holder may be a Disconnect further down the stack, and the threads must
  // not post to an owner that is gone.
  for (const TWorkers& each : ending) each->EndAndJoin();
  if (current) current->EndAndJoin();
}

void TPipeClient::Free(std::unique_ptr<TPipeClient>& client) {
  if (!client) return;
  RequireMainThread("Must be in main thread to destroy a TPipeClient (Pipe:" + client->PipeName() +
                    ").");
  client.reset();
}

void TPipeClient::SetPipeName(std::string name) {
  RequireValidName(name);
  const TKZLockGuard lock(FLock);
  if (FCurrent) throw EPipeException("Cannot change property when client is connected!");
  FPipeName = std::move(name);
}

std::string TPipeClient::PipeName() const {
  const TKZLockGuard lock(FLock);
  return FPipeName;
}

bool TPipeClient::Connect(int waitMs) {
  if (const TWorkers current = Current(); current && !current->Connection().Ended()) return true;
  const std::string path = FullPipeNameOf(PipeName());
  if (::access(path.c_str(), F_OK) != 0) return false;
  const auto isToStop = [stopping = FStopping, life = Life()] {
    return life.expired() || (stopping != nullptr && stopping->IsCancelled());
  };
  TFileDescriptor socket = ConnectWithin(path, waitMs, isToStop);
  return socket && StartWorkers(std::move(socket), path);
}

bool TPipeClient::StartWorkers(TFileDescriptor socket, const std::string& path) {
  const TWorkers workers = std::make_shared<TPipeWorkers>(
      std::move(socket), TPipeSide::Client, PipeName(), path, FMaxFrameSize.load(), *this);
  {
    const TKZLockGuard lock(FLock);
    // A connection that has ended and is not reported yet.
    if (FCurrent) FEnding.push_back(std::move(FCurrent));
    FCurrent = workers;
    FPipe.store(workers->Connection().Pipe());
    FConnected.store(true);
  }
  try {
    workers->Start();
    return true;
  } catch (...) {
    Take(workers->Connection().Serial());
    ForgetPipe();
    WritePipeDiagnostic(CurrentExceptionMessage());
  }
  return false;
}

// Out of the client's sight, but kept until its end is reported. Null when there is none.
TPipeEndpoint::TWorkers TPipeClient::TakeCurrent() {
  const TKZLockGuard lock(FLock);
  if (!FCurrent) return nullptr;
  FEnding.push_back(FCurrent);
  FPipe.store(kNoPipe);
  FConnected.store(false);
  return std::exchange(FCurrent, nullptr);
}

void TPipeClient::Disconnect(TWait wait) {
  constexpr milliseconds kPoll{100};
  constexpr int kWriterPolls = 11;
  KZCP::Checkpoint("PipCl.Disc");
  const TWorkers workers = TakeCurrent();
  if (!workers) return;
  KZCP::Checkpoint("PipCl.Disc2");
  workers->Connection().End();
  KZCP::Checkpoint("PipCl.Disc3");
  TerminateMarked(workers->Reader(), "PipCl.Disc4EX");
  KZCP::Checkpoint("PipCl.Disc4");
  TerminateMarked(workers->Writer(), "PipCl.Disc5EX");
  KZCP::Checkpoint("PipCl.Disc5");
  if (wait == TWait::Yes) {
    while (!workers->Reader().WaitFinished(kPoll)) KZCP::Checkpoint("PipCl.Disc6");
    for (int i = 0; i < kWriterPolls && !workers->Writer().WaitFinished(kPoll); ++i) {
      KZCP::Checkpoint("PipCl.Disc7");
    }
  }
  KZCP::Checkpoint("PipCl.Disc8");
}

bool TPipeClient::Write(std::string_view payload) {
  const TWorkers workers = Current();
  if (!workers || workers->Connection().Ended()) return false;
  workers->Connection().Queue().Append(payload);
  return true;
}

void TPipeClient::WaitUntilWriteQueueEmpty(int seconds) {
  constexpr milliseconds kPoll{100};
  for (std::int64_t i = 0; i < std::int64_t{seconds} * 10; ++i) {
    if (!ValidObjects().IsValid(this, "TPipeClient.WaitUntilWriteQueueEmpty")) return;
    const TWorkers workers = Current();
    if (!workers || workers->Connection().Queue().Count() == 0) return;
    SleepSynchronizing(kPoll);
  }
}

std::optional<TPipeWrite> TPipeClient::Dequeue() {
  const TWorkers workers = Current();
  return workers ? workers->Connection().Queue().Dequeue() : std::nullopt;
}

void TPipeClient::WndMethod(TKZMessage& message) {
  assert(IsMainThread());
  if (!FRegistration.IsValid("PCltNVO")) return;
  if (message.Msg == kMsgPipeDisconnect) {
    RaiseDisconnect(message.WParam);
  } else if (message.Msg == kMsgPipeWorkerEnded) {
    RemoveWorkerThread(message.LParam);
  } else {
    RaiseEvent(message);
  }
}

// An end that Disconnect brought about is reported like any other, but it does not touch the
// connection that may have been made since. The pipe is forgotten after the event, which still
// sees it.
void TPipeClient::RemoveWorkerThread(std::int64_t serial) {
  const TWorkers ended = Take(serial);
  if (!ended) return;
  ended->EndAndJoin();
  const TAtEnd forget([this] {
    if (ValidObjects().IsValid(this, "TPipeClient.RemoveWorkerThread")) ForgetPipe();
  });
  RaiseDisconnect(ended->Connection().Pipe());
}

// Does nothing if a new connection has been made meanwhile.
void TPipeClient::ForgetPipe() {
  const TKZLockGuard lock(FLock);
  if (FCurrent) return;
  FPipe.store(kNoPipe);
  FConnected.store(false);
}

// Takes the connection of that serial out of the client; null when it is gone already.
TPipeEndpoint::TWorkers TPipeClient::Take(std::int64_t serial) {
  const TKZLockGuard lock(FLock);
  const bool isCurrent = FCurrent && FCurrent->Connection().Serial() == serial;
  return isCurrent ? std::move(FCurrent) : TakeBySerial(FEnding, serial);
}

TPipeEndpoint::TWorkers TPipeClient::Current() const {
  const TKZLockGuard lock(FLock);
  return FCurrent;
}

}  // namespace guardian
