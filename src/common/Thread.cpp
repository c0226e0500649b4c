#include "common/Thread.h"

#include <unistd.h>

#include <cassert>
#include <utility>
#include <vector>

#include "common/Console.h"
#include "common/Exceptions.h"
#include "common/FatalSignals.h"
#include "common/MainThread.h"
#include "common/NeverDestroyed.h"
#include "common/Progress.h"
#include "common/SignalBlock.h"

namespace guardian {
namespace {

void PrintEscapedException(const std::string& threadName, std::exception_ptr error) {
  try {
    std::rethrow_exception(std::move(error));
  } catch (...) {
    DebugOutput("Exception in thread " + threadName + ": " + CurrentExceptionMessage());
  }
}

// Set before threads start, so read without a lock.
TThread::TExceptionHandler& ExceptionHandler() {
  static TThread::TExceptionHandler handler;
  return handler;
}

// Zero: not asked for yet.
thread_local std::int32_t tThreadId = 0;

std::int32_t AskThreadId() noexcept {
  // The one thread of a forked child has another id than the thread that it is a copy of.
  [[maybe_unused]] static const int registered =
      ::pthread_atfork(nullptr, nullptr, [] { tThreadId = 0; });
  tThreadId = ::gettid();
  return tThreadId;
}

}  // namespace

std::int32_t CurrentThreadId() noexcept { return tThreadId != 0 ? tThreadId : AskThreadId(); }

TThread::TThread(std::string name, std::size_t stackBytes)
    : FName(std::move(name)), FStackBytes(stackBytes) {}

TThread::~TThread() { Join(); }

void TThread::Start() {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  int error = pthread_attr_setstacksize(&attributes, FStackBytes);
  if (error == 0) {
    // A new thread inherits the signal mask of the thread that creates it.
    const TSignalBlock block(AllSignalsButFatalOnes());
    error = pthread_create(&FHandle, &attributes, &TThread::Run, this);
  }
  pthread_attr_destroy(&attributes);
  if (error != 0) {
    // No caller of WaitFinished shall wait for a thread that does not exist.
    FFinished.store(true);
    FFinishedEvent.Signal();
    throw ESystemError("pthread_create", FName, error);
  }
  FStarted = true;
}

void TThread::Terminate() {
  FTerminated.store(true);
  // NOLINTNEXTLINE(clang-analyzer-optin.cplusplus.VirtualCall): overriding classes join first.
  OnTerminate();
}

bool TThread::WaitFinished(std::chrono::milliseconds timeout) {
  if (!IsMainThread()) return FFinishedEvent.WaitFor(timeout);
  // Short rounds: the end of the thread does not wake the main thread's queue.
  constexpr std::chrono::milliseconds kRound{10};
  const std::int64_t deadline = SystemTickCount() + timeout.count();
  while (!FFinishedEvent.WaitFor(std::chrono::milliseconds(0))) {
    if (SystemTickCount() >= deadline) return false;
    CheckSynchronize(kRound);
  }
  return true;
}

void TThread::Join() {
  if (!FStarted) return;
  assert(pthread_equal(FHandle, pthread_self()) == 0);  // It would wait for itself.
  Terminate();
  while (!WaitFinished(std::chrono::hours(1))) continue;
  // A request that ran meanwhile may have joined it.
  if (!FStarted) return;
  Release();
}

void TThread::JoinWithoutRequests() {
  if (!FStarted) return;
  assert(pthread_equal(FHandle, pthread_self()) == 0);
  Terminate();
  Release();
}

void TThread::Release() {
  pthread_join(FHandle, nullptr);
  FStarted = false;
}

void TThread::SetExceptionHandler(TExceptionHandler handler) {
  assert(IsMainThread());
  ExceptionHandler() = std::move(handler);
}

bool TThread::EndOrLeaveBehind(std::unique_ptr<TThread> thread, std::chrono::milliseconds grace) {
  static TNeverDestroyed<std::vector<std::unique_ptr<TThread>>> leftBehind;
  thread->Terminate();
  if (thread->WaitFinished(grace)) return true;
  pthread_detach(thread->FHandle);
  (*leftBehind).push_back(std::move(thread));
  return false;
}

void* TThread::Run(void* self) {
  static_cast<TThread*>(self)->RunWhole();
  return nullptr;
}

void TThread::RunWhole() {
  constexpr std::size_t kKernelNameLength = 15;
  const TAlternateSignalStack signalStack;
  FThreadId.store(CurrentThreadId());
  pthread_setname_np(pthread_self(), FName.substr(0, kKernelNameLength).c_str());
  NoteProgress(FName);
  RunGuarded([this] { Execute(); });
  RunGuarded([this] { OnFinished(); });
  FFinished.store(true);
  // The last touch of this object, which the join still waits for.
  FFinishedEvent.Signal();
  // A join in the main thread waits for the queue.
  WakeMainThread();
}

void TThread::RunGuarded(const std::function<void()>& work) {
  try {
    work();
  } catch (...) {
    const TExceptionHandler& handler = ExceptionHandler();
    (handler ? handler : PrintEscapedException)(FName, std::current_exception());
  }
}

}  // namespace guardian
