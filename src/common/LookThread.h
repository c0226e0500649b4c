#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "common/Clock.h"
#include "common/DiagnosticMessage.h"
#include "common/Mutex.h"
#include "common/Thread.h"

namespace guardian {

// Looks at what may stand still, such as a folder on a dead network mount, whenever it is asked to,
// so that nobody else stands still with it.
// Owner: the object that asks; it ends the thread by EndOrLeaveBehind.
// Threads: any thread may ask.
// Lifetime: the look uses nothing but what lives as long as the process, because the thread may be
// left behind.
template <typename TAnswer>
class TLookThread final : public TThread {
 public:
  using TLook = std::function<TAnswer()>;

  // The first answer is given until there is another one. A look that throws is made again.
  TLookThread(std::string name, TLook look, TAnswer first)
      : TThread(std::move(name)), FLook(std::move(look)), FSeen(std::move(first)) {}
  ~TLookThread() override { Join(); }

  // What is seen now; nothing when the look takes longer.
  std::optional<TAnswer> Ask(std::chrono::milliseconds longest) KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    if (!WaitForAnswerLocked(AskLocked(), longest)) return std::nullopt;
    return FSeen;
  }

  // What was seen no longer ago than this, or else what is seen now, or what was seen last when the
  // look takes longer than a tenth of a second. Only the first caller who meets a look that stands
  // still waits for it.
  TAnswer AskBriefly(std::chrono::milliseconds fresh) KZ_EXCLUDES(FLock) {
    constexpr std::chrono::milliseconds kLongest{100};
    const TMutexLock lock(FLock);
    if (IsFreshLocked(fresh)) return FSeen;
    // A look that goes on will do, or a slow one would be followed by the next without a pause.
    const std::int64_t asked = FAnswered < FAsked ? FAsked : AskLocked();
    if (!WaitsForLocked(kLongest)) static_cast<void>(WaitForAnswerLocked(asked, kLongest));
    return FSeen;
  }

  // Whether a look that was asked for has been taking so long.
  [[nodiscard]] bool WaitsFor(std::chrono::milliseconds duration) KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    return WaitsForLocked(duration);
  }

 private:
  [[nodiscard]] bool IsFreshLocked(std::chrono::milliseconds age) const KZ_REQUIRES(FLock) {
    return FAnswered > 0 && FAnswered == FAsked && SystemTickCount() - FSince < age.count();
  }

  [[nodiscard]] bool WaitsForLocked(std::chrono::milliseconds duration) const KZ_REQUIRES(FLock) {
    return FAnswered < FAsked && SystemTickCount() - FSince >= duration.count();
  }

  std::int64_t AskLocked() KZ_REQUIRES(FLock) {
    if (FAnswered == FAsked) FSince = SystemTickCount();
    return ++FAsked;
  }

  void Execute() override {
    constexpr std::chrono::milliseconds kPauseAfterFailure{100};
    while (!Terminated()) {
      const bool done = Guarded(Name(), SystemClock(), [this] { AnswerNext(); });
      if (!done) SystemClock().Sleep(kPauseAfterFailure);
    }
  }

  void AnswerNext() {
    if (const auto asked = WaitUntilAsked()) Publish(*asked, FLook());
  }

  bool WaitForAnswerLocked(std::int64_t asked, std::chrono::milliseconds longest)
      KZ_REQUIRES(FLock) {
    FChanged.NotifyAll();
    return SystemClock().WaitUntil(FLock, FChanged, SystemTickCount() + longest.count(),
                                   [this, asked]()
                                       KZ_REQUIRES(FLock) { return FAnswered >= asked; });
  }

  // The number of the last question; nothing when the thread is to end.
  std::optional<std::int64_t> WaitUntilAsked() KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    while (!Terminated() && FAnswered == FAsked) FChanged.Wait(FLock);
    if (Terminated()) return std::nullopt;
    return FAsked;
  }

  void Publish(std::int64_t answered, TAnswer seen) KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    FSeen = std::move(seen);
    FAnswered = answered;
    FSince = SystemTickCount();
    FChanged.NotifyAll();
  }

  void OnTerminate() override KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    FChanged.NotifyAll();
  }

  const TLook FLook;
  TMutex FLock;
  TCondition FChanged;
  TAnswer FSeen KZ_GUARDED_BY(FLock);
  // Numbers of questions.
  std::int64_t FAsked KZ_GUARDED_BY(FLock) = 0;
  std::int64_t FAnswered KZ_GUARDED_BY(FLock) = 0;
  // Tick count of the last answer, or of the first question after it.
  std::int64_t FSince KZ_GUARDED_BY(FLock) = 0;
};

}  // namespace guardian
