#include "webstatus/HttpThreads.h"

#include <sched.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "common/Thread.h"

namespace guardian {
namespace {

constexpr std::size_t kStackBytes = 1'048'576;

}  // namespace

// Runs the handlers of a context until that is stopped. What escapes a connection's handlers has
// already ended the connection.
class THttpThreads::TThreadOf final : public TThread {
 public:
  // Looks out for the next handler for the given time before it sleeps.
  TThreadOf(boost::asio::io_context& context, const THttpServerOptions& options, std::size_t number,
            std::chrono::microseconds lookOut)
      : TThread(options.ThreadName + " #" + std::to_string(number), kStackBytes),
        FContext(context),
        FOptions(options),
        FLookOut(lookOut) {
    Start();
  }
  ~TThreadOf() override { Join(); }

 private:
  void Execute() override {
    while (!FContext.stopped()) {
      try {
        RunNext();
      } catch (...) {
        FOptions.Report(std::current_exception());
      }
    }
  }
  void OnTerminate() override { FContext.stop(); }

  void RunNext() {
    using TSteadyClock = std::chrono::steady_clock;
    const TSteadyClock::time_point end = TSteadyClock::now() + FLookOut;
    while (TSteadyClock::now() < end) {
      if (FContext.poll_one() > 0) return;
      ::sched_yield();  // The client may need this very processor.
    }
    FContext.run_one();
  }

  boost::asio::io_context& FContext;
  const THttpServerOptions& FOptions;
  const std::chrono::microseconds FLookOut;
};

THttpThreads::THttpThreads(const THttpServerOptions& options, TClock& clock)
    : FOptions(options), FClock(clock) {}

THttpThreads::~THttpThreads() = default;

void THttpThreads::Start() {
  // A client that has its answer sends the next request within some microseconds. To look out for
  // it costs no more than to fall asleep and be woken, and answers twice as soon.
  constexpr std::chrono::microseconds kLookOut{20};
  for (std::size_t i = 0; i < kBlockingThreads; ++i) {
    FBlockingThreads.push_back(std::make_unique<TThreadOf>(FBlockingContext, FOptions, i + 2,
                                                           std::chrono::microseconds::zero()));
  }
  FThread = std::make_unique<TThreadOf>(FContext, FOptions, 1, kLookOut);
}

void THttpThreads::Stop() { FThread.reset(); }

bool THttpThreads::StopBlockingCalls() {
  FBlockingContext.stop();
  bool ended = true;
  for (auto& thread : FBlockingThreads) {
    ended = TThread::EndOrLeaveBehind(std::move(thread), FOptions.StopGrace) && ended;
  }
  return ended;
}

// As many places as threads, so one is free.
std::atomic<std::int64_t>& THttpThreads::TakePlace() {
  const std::int64_t now = FClock.TickCount();
  return *std::find_if(FBlockedSince.begin(), FBlockedSince.end(),
                       [now](std::atomic<std::int64_t>& since) {
                         std::int64_t free = 0;
                         return since.compare_exchange_strong(free, now);
                       });
}

bool THttpThreads::BlockingCallsStandStill() const {
  const std::int64_t latest = FClock.TickCount() - FOptions.StuckAfter.count();
  return std::all_of(FBlockedSince.begin(), FBlockedSince.end(), [latest](const auto& since) {
    const std::int64_t tick = since.load();
    return tick != 0 && tick < latest;
  });
}

}  // namespace guardian
