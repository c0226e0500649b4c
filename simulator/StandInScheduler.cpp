#include "simulator/StandInScheduler.h"

#include <string>
#include <utility>

#include "common/Clock.h"
#include "common/Exceptions.h"
#include "common/MainThread.h"
#include "ipc/KZMessages.h"
#include "ipc/SyncCommTypes.h"
#include "ipc/scheduler_client.h"
#include "simulator/EventLog.h"

namespace guardian {
namespace {

std::string StatusRecord(std::int64_t pulse) {
  TSyncCommRecord record{};
  record.SchedulerAction = static_cast<std::uint8_t>(TSchedulerActions::tsaSchedulerRunning);
  record.SchedulerType = static_cast<std::uint8_t>(TSchedulerType::stService);
  record.TimeStamp1 = SystemClock().Now();
  record.FirstText.Set("Scheduler running");
  record.SecondText.Set("Documents to NAS");
  record.DetailText.Set("next run at " + DateTimeToStr(record.TimeStamp1 + 15 * kMinute));
  record.Pulse = pulse;
  return RecordBytes(record);
}

}  // namespace

TMessaging::TMessaging() {
  BindMainThread();
  FApplication.emplace();
  StartMessages();
  StartPipes();
}

TMessaging::~TMessaging() {
  StopPipes();
  StopMessages();
  FApplication.reset();
  CloseMainThreadQueue();
}

TStandInScheduler::TStandInScheduler(THome home) : FHome(std::move(home)) {
  SetPipeDirectory(FHome.MutexFolder());
  FServer.SetPipeName(kSchedulerMutexName);
  FServer.OnPipeConnect = [this](auto&, std::int64_t pipe) {
    LogEvent(FHome, "Pipe connected: " + std::to_string(pipe));
  };
  FServer.OnPipeDisconnect = [this](auto&, std::int64_t pipe) {
    LogEvent(FHome, "Pipe disconnected: " + std::to_string(pipe));
  };
  FServer.OnPipeMessage = [this](auto&, std::int64_t pipe, std::string_view payload) {
    HandleCommands(pipe, payload);
  };
}

void TStandInScheduler::Follow(const TFaults& faults) {
  FollowMutex(!faults.Has(TFault::DropMutex));
  FollowPipe(!faults.Has(TFault::ClosePipe));
  if (SystemTickCount() >= FNextRecordTick) SendStatusRecords(faults);
}

void TStandInScheduler::FollowMutex(bool held) {
  if (held == FMutex.HasHandle()) return;
  if (!held) {
    FMutex.Close();
    return;
  }
  FMutex = TNamedMutex::Create(SchedulerMutexPath());
  if (FMutex.Error() != 0) {
    LogEvent(FHome, "Scheduler mutex not taken, error " + std::to_string(FMutex.Error()));
  }
}

void TStandInScheduler::FollowPipe(bool served) {
  if (served == FServer.Active()) return;
  try {
    FServer.SetActive(served);
  } catch (const KZException& error) {
    LogEvent(FHome, "Scheduler pipe not served: " + error.Message());
  }
}

void TStandInScheduler::SendStatusRecords(const TFaults& faults) {
  constexpr std::int64_t kRecordPeriodMs = 1000;
  constexpr std::size_t kMaxWaiting = 100;
  FNextRecordTick = SystemTickCount() + kRecordPeriodMs;
  if (!faults.Has(TFault::FreezePulse)) ++FPulse;
  if (faults.Has(TFault::MutePipe)) return;
  if (faults.Has(TFault::Garbage)) {
    SendToAll("garbage that is no whole number of records");
  } else {
    SendToAll(StatusRecord(FPulse));
  }
  FServer.LimitWriteQueues(kMaxWaiting);
}

void TStandInScheduler::SendToAll(std::string_view payload) {
  for (std::size_t i = 0; i < FServer.ClientCount(); ++i) {
    FServer.Write(FServer.Clients(i), payload);
  }
}

void TStandInScheduler::HandleCommands(std::int64_t pipe, std::string_view payload) {
  while (const auto record = TakeRecord(payload)) {
    const auto command = static_cast<TSyncCommMessages>(record->Command);
    LogEvent(FHome, "Command received: " + NameOf(command));
    if (command == TSyncCommMessages::msgEnquireStatus) FServer.Write(pipe, StatusRecord(FPulse));
  }
}

}  // namespace guardian
