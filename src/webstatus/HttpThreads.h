#pragma once

#include <array>
#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "common/Clock.h"
#include "webstatus/HttpServer.h"

namespace guardian {

// The server's own thread, in which everything happens, and two for calls that may stand still.
// Owner: the server from one Activate to the next Deactivate.
// Threads: Start, the stops and the destructor by the owner; Context and Persist by any; the rest
// by the server's own thread. Lifetime: the options and the clock outlive it. When
// StopBlockingCalls has returned false, nothing of it is freed.
class THttpThreads {
 public:
  THttpThreads(const THttpServerOptions& options, TClock& clock);
  ~THttpThreads();
  THttpThreads(const THttpThreads&) = delete;
  THttpThreads& operator=(const THttpThreads&) = delete;

  // What the server's own thread works off.
  [[nodiscard]] boost::asio::io_context& Context() { return FContext; }

  // Throws ESystemError.
  void Start();

  // Ends and joins the server's own thread; what it has not worked off is never run.
  void Stop();

  // Returns whether both calls ended within StopGrace.
  [[nodiscard]] bool StopBlockingCalls();

  // Runs the call in a blocking thread, then the other in the server's own, with its result. The
  // blocking thread never lets go of the owner, whatever fails there; when the call throws, only
  // that is left to do for the other.
  template <typename TOwner, typename TCall, typename TThen>
  void CallBlocking(std::shared_ptr<TOwner> owner, TCall call, TThen then) {
    struct TTask {
      std::shared_ptr<TOwner> Owner;
      TCall Call;
      TThen Then;
      std::optional<decltype(call())> Result;
    };
    auto task = std::make_shared<TTask>(
        TTask{std::move(owner), std::move(call), std::move(then), std::nullopt});
    boost::asio::post(FBlockingContext, [this, task = std::move(task)] {
      std::atomic<std::int64_t>& since = TakePlace();
      try {
        task->Result.emplace(task->Call());
      } catch (...) {
        FOptions.Report(std::current_exception());
      }
      since = 0;
      const auto finish = [task] {
        const auto released = std::move(task->Owner);
        if (task->Result) task->Then(std::move(*task->Result));
      };
      Persist([&] { boost::asio::post(FContext, finish); });
    });
  }

  // Repeats a step without which the server would stand still until there is memory for it.
  template <typename TStep>
  void Persist(const TStep& step) {
    constexpr std::chrono::milliseconds kPause{100};
    while (!FContext.stopped()) {
      try {
        return step();
      } catch (...) {
        FOptions.Report(std::current_exception());
        SystemClock().Sleep(kPause);
      }
    }
  }

  // Whether all blocking calls have stood still for StuckAfter.
  [[nodiscard]] bool BlockingCallsStandStill() const;

 private:
  class TThreadOf;
  static constexpr std::size_t kBlockingThreads = 2;
  using TWork = boost::asio::executor_work_guard<boost::asio::io_context::executor_type>;

  std::atomic<std::int64_t>& TakePlace();

  const THttpServerOptions& FOptions;
  TClock& FClock;
  boost::asio::io_context FContext{1};
  boost::asio::io_context FBlockingContext;
  TWork FWork{FContext.get_executor()};
  TWork FBlockingWork{FBlockingContext.get_executor()};
  // Since when each blocking call has run; 0 for none. Atomics: written by the blocking threads.
  std::array<std::atomic<std::int64_t>, kBlockingThreads> FBlockedSince{};
  std::vector<std::unique_ptr<TThreadOf>> FBlockingThreads;
  std::unique_ptr<TThreadOf> FThread;
};

}  // namespace guardian
