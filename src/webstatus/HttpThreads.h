#pragma once

#include <array>
#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "common/Clock.h"
#include "webstatus/HttpServer.h"

namespace guardian {

// The server's own thread, in which everything happens, and two for calls that may stand still.
// Owner: the server from one Activate to the next Deactivate.
// Threads: Start, the stops and the destructor by the owner; Context by any; the rest by the
// server's own thread.
// Lifetime: the options and the clock outlive it. When StopBlockingCalls has returned false,
// nothing of it is freed.
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

  // Runs the call in a blocking thread, then the other in the server's own, with its result. What
  // keeps their owner alive is never let go in the blocking thread.
  template <typename TOwner, typename TCall, typename TThen>
  void CallBlocking(std::shared_ptr<TOwner> owner, TCall call, TThen then) {
    boost::asio::post(FBlockingContext, [this, owner = std::move(owner), call = std::move(call),
                                         then = std::move(then)]() mutable {
      std::atomic<std::int64_t>& since = TakePlace();
      auto result = call();
      since = 0;
      boost::asio::post(FContext,
                        [owner = std::move(owner), then = std::move(then),
                         result = std::move(result)]() mutable { then(std::move(result)); });
    });
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
