#include "ipc/scheduler_client.h"

#include <cassert>
#include <utility>

#include "common/Exceptions.h"
#include "common/MainThread.h"
#include "common/NamedMutex.h"
#include "common/Texts.h"
#include "ipc/KZMessages.h"

namespace guardian {
namespace {

constexpr int kBurst = 10;
constexpr double kAskAfterMinutes = 1.1;
constexpr double kSilentMinutes = 2;

std::string Escaped(const TShortText& text) { return HtmlEscape(text.Text()); }

}  // namespace

std::string SchedulerMutexPath() { return PipeDirectory() + "/" + kSchedulerMutexName; }

TSchedulerClient::TSchedulerClient(std::string pipeName, TLog log, const TCancellation& stopping,
                                   TClock& clock)
    : FPipeName(std::move(pipeName)), FLog(std::move(log)), FStopping(stopping), FClock(clock) {}

TSchedulerClient::~TSchedulerClient() = default;

bool TSchedulerClient::IsSchedulerRunning() {
  const std::string path = SchedulerMutexPath();
  const int error = TNamedMutex::Create(path).Error();
  const bool failed = error != 0 && error != kErrorAlreadyExists;
  if (failed && error != FMutexError) {
    FLog("Scheduler mutex cannot be looked at: " + HtmlEscape(path) +
         ".lock: " + SystemErrorText(error));
  }
  FMutexError = error;
  return error == kErrorAlreadyExists;
}

TPipeCheck TSchedulerClient::CheckSchedulerPipe() {
  const TDateTime now = FClock.SteadyNow();
  const TAction action = DecideAction(now);
  if (action == TAction::HeardLately) return {.Ok = true};
  FMessagesReceived = 0;
  switch (action) {
    case TAction::CloseAfterBurst:
      FLog("10 messages received, closing pipe.");
      if (FClient) FClient->Disconnect(TPipeClient::TWait::No);
      return {.Ok = true};
    case TAction::AskAndJudge:
      SendCommand(TSyncCommMessages::msgEnquireStatus);
      [[fallthrough]];
    case TAction::Judge:
      return {.Ok = FLastMessageAt > now - kSilentMinutes * kMinute};
    default:
      FLog("Opening pipe connection to service");
      const bool connected = Connect(1000);
      return {.Ok = connected, .JustConnected = connected};
  }
}

TSchedulerClient::TAction TSchedulerClient::DecideAction(TDateTime now) const {
  if (HeardSince(now, 1)) {
    return FMessagesReceived >= kBurst ? TAction::CloseAfterBurst : TAction::HeardLately;
  }
  if (!IsConnected()) return TAction::Connect;
  return HeardSince(now, kAskAfterMinutes) ? TAction::Judge : TAction::AskAndJudge;
}

bool TSchedulerClient::HeardSince(TDateTime now, double minutes) const {
  return FLastMessageAt >= now - minutes * kMinute;
}

// Makes the client in the main thread, where it has to live. False when the application ends
// meanwhile.
bool TSchedulerClient::EnsureClient() {
  if (FClient) return true;
  CallInMainThread([this] {
    constexpr std::uint32_t kMaxFrameBytes = 16'777'216;
    auto client = std::make_unique<TPipeClient>(&FStopping);
    client->SetPipeName(FPipeName);
    client->SetMaxFrameSize(kMaxFrameBytes);
    client->OnPipeDisconnect = [this](auto&, std::int64_t) { HandleDisconnect(); };
    client->OnPipeMessage = [this](auto&, std::int64_t, std::string_view payload) {
      HandleMessage(payload);
    };
    FClient = std::move(client);
  });
  return FClient != nullptr;
}

// A path that is too long for a socket must not end the watchdog's round.
bool TSchedulerClient::Connect(int waitMs) {
  try {
    return EnsureClient() && FClient->Connect(waitMs);
  } catch (const KZException& error) {
    FLog("Scheduler pipe cannot be opened: " + HtmlEscape(error.Message()));
    return false;
  }
}

bool TSchedulerClient::SendCommand(TSyncCommMessages command) {
  constexpr int kConnectMs = 5000;
  const std::string name = NameOf(command);
  FLog("Sending command " + name);
  if (!IsConnected() && !Connect(kConnectMs)) {
    FLog("Error connecting pipe");
  }
  const bool sent = FClient && FClient->Write(CommandRecord(command));
  if (!sent) FLog("Error sending command " + name);
  return sent;
}

void TSchedulerClient::HandleDisconnect() {
  assert(IsMainThread());
  FLog("Scheduler Pipe Disconnected");
  FLastMessageAt = FClock.SteadyNow();
}

void TSchedulerClient::HandleMessage(std::string_view payload) {
  assert(IsMainThread());
  FLastMessageAt = FClock.SteadyNow();
  while (const auto record = TakeRecord(payload)) {
    // Further records are only counted; they are not looked at until the pipe is opened again.
    if (++FMessagesReceived <= kBurst) LogRecord(*record);
  }
}

void TSchedulerClient::LogRecord(const TSyncCommRecord& record) {
  const auto action = static_cast<TSchedulerActions>(record.SchedulerAction);
  std::string line = "Scheduler Msg: " + NameOf(action) + " ";
  if (action == TSchedulerActions::tsaStatusUpdate) {
    line += Escaped(record.StatusText) + " " + Escaped(record.SecondText);
  } else {
    line += Escaped(record.FirstText) + " " + Escaped(record.SecondText) + ": " +
            Escaped(record.DetailText);
  }
  if (action == TSchedulerActions::tsaSchedulerRunning) {
    line += " Pulse: " + std::to_string(record.Pulse);
    FPulse = record.Pulse;
  }
  FLog(line);
}

}  // namespace guardian
