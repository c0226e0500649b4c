#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "common/Cancellation.h"
#include "common/Clock.h"
#include "ipc/KZUnixPipes.h"
#include "ipc/SyncCommTypes.h"

namespace guardian {

// The name of the daemon's scheduler mutex and, unless the settings say otherwise, of its pipe.
inline constexpr const char* kSchedulerMutexName = "vellumark$qrnd$schedulermutex";

// The pipe directory, "/" and the mutex name.
[[nodiscard]] std::string SchedulerMutexPath();

struct TPipeCheck {
  bool Ok = false;
  bool JustConnected = false;  // During this check.
};

// The daemon's scheduler as the watchdog sees it.
// Threads: the watchdog's thread; the pulse may be read by any.
class TScheduler {
 public:
  // Takes one HTML line, in which the daemon's own texts are escaped. Any thread.
  using TLog = std::function<void(std::string_view line)>;

  virtual ~TScheduler() = default;

  // Whether somebody holds the scheduler mutex. Any other failure to take it counts as no, and is
  // logged when it differs from the last one.
  [[nodiscard]] virtual bool IsSchedulerRunning() = 0;

  // Whether the scheduler was heard of lately. Connects when it was not, for at most 1.5 seconds,
  // and asks a connected daemon that is silent for its status.
  [[nodiscard]] virtual TPipeCheck CheckSchedulerPipe() = 0;

  // Sends one command; connects first where needed, for at most 5.5 seconds. Returns whether the
  // command is on its way.
  virtual bool SendCommand(TSyncCommMessages command) = 0;

  // The last pulse that a running scheduler sent.
  [[nodiscard]] virtual std::int64_t Pulse() const noexcept = 0;
};

// The Guardian's end of the daemon's scheduler pipe: hears the pulse, sends commands.
//
// It listens in bursts: after ten records with fresh pulses it closes the pipe and opens it again
// when the last message is a minute old.
// Owner: the guardian service; created and destroyed in the main thread.
// Threads: CheckSchedulerPipe, IsSchedulerRunning and SendCommand by one thread at a time, the
// watchdog's; the handlers run in the main thread; the pulse may be read by any. The pipe client is
// made in the main thread when it is first needed.
// Lifetime: clock, cancellation and log outlive it; it outlives the watchdog's thread.
class TSchedulerClient final : public TScheduler {
 public:
  TSchedulerClient(std::string pipeName, TLog log, const TCancellation& stopping, TClock& clock);
  ~TSchedulerClient() override;
  TSchedulerClient(const TSchedulerClient&) = delete;
  TSchedulerClient& operator=(const TSchedulerClient&) = delete;

  [[nodiscard]] bool IsSchedulerRunning() override;
  [[nodiscard]] TPipeCheck CheckSchedulerPipe() override;
  bool SendCommand(TSyncCommMessages command) override;
  [[nodiscard]] std::int64_t Pulse() const noexcept override { return FPulse.load(); }

  // Takes the records of one message of the pipe. Main thread.
  void HandleMessage(std::string_view payload);

  // Main thread.
  void HandleDisconnect();

 private:
  enum class TAction { HeardLately, CloseAfterBurst, AskAndJudge, Judge, Connect };

  TAction DecideAction(TDateTime now) const;
  bool HeardSince(TDateTime now, double minutes) const;
  bool EnsureClient();
  bool Connect(int waitMs);
  bool IsConnected() const { return FClient && FClient->Connected(); }
  void LogRecord(const TSyncCommRecord& record);

  const std::string FPipeName;
  const TLog FLog;
  const TCancellation& FStopping;
  TClock& FClock;
  int FMutexError = 0;  // The watchdog's thread only.
  // Atomics: the main thread writes what it hears, the watchdog judges it.
  std::atomic<TDateTime> FLastMessageAt = 0;  // An instant of TClock::SteadyNow.
  std::atomic<int> FMessagesReceived = 0;     // Since the last reset.
  std::atomic<std::int64_t> FPulse = 0;
  // Set once, in the main thread, while the watchdog's thread waits for that.
  std::unique_ptr<TPipeClient> FClient;
};

}  // namespace guardian
