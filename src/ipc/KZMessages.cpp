#include "ipc/KZMessages.h"

#include <sched.h>
#include <sys/prctl.h>

#include <cassert>
#include <utility>
#include <vector>

#include "common/AtEnd.h"
#include "common/Clock.h"
#include "common/DiagnosticMessage.h"
#include "common/ErrorLog.h"
#include "common/Exceptions.h"
#include "common/MainThread.h"
#include "common/NeverDestroyed.h"
#include "diagnostics/KZCheckpoints.h"
#include "ipc/KZCustomApplication.h"
#include "ipc/MessageList.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;

class TMessageDeliveryThread final : public TKZThread {
 public:
  TMessageDeliveryThread() : TKZThread(TThreadCreation::Running, "MessageDelivery") {}
  ~TMessageDeliveryThread() override { Join(); }

 private:
  void Execute() override;
  void OnTerminate() override;
};

// The unit's parts. They are never freed: a thread that posts or waits too late finds the lists
// closed.
//
// Each StartMessages begins a new generation. A synchronous call belongs to the generation it began
// in, so that a restart of the unit does not make it wait for a message that was dropped.
struct TMessageUnit {
  TMessageList GMsgList;
  TMessageList GDoneList;
  TKZEvent GMsgEvent{"GMsgEvent"};
  TKZEvent GDoneEvent{"GDoneEvent"};

  // Atomics: each is read by any thread and none depends on another.
  std::atomic<std::uint64_t> Generation = 0;          // The last generation started; 0 for none.
  std::atomic<std::uint64_t> ShutDownGeneration = 0;  // The last whose shutdown has begun.
  std::atomic<int> SynchronousCalls = 0;              // In progress.
  std::atomic<bool> DeliveryStopped = false;
  std::atomic<std::int64_t> Delivered = 0;
  std::atomic<std::int64_t> LatencySumMs = 0;

  // Main thread only. Used are delivered wrappers, to be given back to GMsgList. Batch was taken
  // off GMsgList and is not delivered yet; it is older than all that is in the list. LeftThreads
  // did not end in time.
  TMessageChain Used;
  TMessageChain Batch;
  std::unique_ptr<TMessageDeliveryThread> DeliveryThread;
  std::vector<std::unique_ptr<TMessageDeliveryThread>> LeftThreads;
  TMessageExceptionReporter Reporter;
};

TMessageUnit& Unit() {
  static TNeverDestroyed<TMessageUnit> unit;
  return *unit;
}

// Nothing is delivered once the application terminates, so a call that waited on would wait for
// the shutdown, which may itself wait for the caller.
bool ShuttingDown(const TMessageUnit& unit, std::uint64_t generation) {
  return unit.ShutDownGeneration.load() >= generation ||
         ApplicationState() == TApplicationState::Terminating;
}

bool DeliveryAllowed(const TMessageUnit& unit) {
  return ApplicationState() == TApplicationState::Running && !unit.DeliveryStopped.load();
}

void TMessageDeliveryThread::Execute() {
  constexpr milliseconds kLongestWait{1000};
  KZCP::Checkpoint(Name());
  LetLooksBeLate();
  TMessageUnit& unit = Unit();
  do {
    KZCP::Checkpoint("MessageDelivery:Wait");
    unit.GMsgEvent.WaitFor(kLongestWait);
    if (unit.GMsgList.Empty() || unit.DeliveryStopped.load()) continue;
    KZCP::Checkpoint("MessageDelivery:Synchronize");
    // What fails is tried again after the next wait.
    Guarded("MessageDelivery", SystemClock(), [] { Synchronize(&ProcessMessages); });
  } while (!Terminated() && ApplicationState() == TApplicationState::Running);
}

void TMessageDeliveryThread::OnTerminate() { Unit().GMsgEvent.Signal(); }

// A used wrapper for the thread's next message.
thread_local std::unique_ptr<TMessageWrapper> tSpare;

std::unique_ptr<TMessageWrapper> NewWrapper() {
  return tSpare ? std::move(tSpare) : std::make_unique<TMessageWrapper>();
}

// Returns whether the message was taken.
//
// The event is signalled for the first message of an empty list only. That is enough: the signal
// stays until the delivery thread takes it, which then has the whole list delivered. When delivery
// is stopped, that thread looks again after its longest wait or when delivery is resumed.
bool Enqueue(TMessageUnit& unit, std::unique_ptr<TMessageWrapper> wrapper) {
  wrapper->PostTime = SystemTickCount();
  const TMessageList::TAppended appended = unit.GMsgList.Append(wrapper);
  if (appended == TMessageList::TAppended::Refused) return false;
  tSpare = std::move(wrapper);
  if (appended == TMessageList::TAppended::AsFirst) unit.GMsgEvent.Signal();
  return true;
}

void CountDelivered(TMessageUnit& unit, const TMessageWrapper& wrapper) {
  // Written by the main thread alone.
  const std::int64_t latencyMs = SystemTickCount() - wrapper.PostTime;
  unit.Delivered.store(unit.Delivered.load(std::memory_order_relaxed) + 1,
                       std::memory_order_relaxed);
  unit.LatencySumMs.store(unit.LatencySumMs.load(std::memory_order_relaxed) + latencyMs,
                          std::memory_order_relaxed);
}

// In a catch block.
void ReportException(TMessageUnit& unit) {
  ErrorLog().WriteLine("EXCEPTION Processing KZMsg: " + CurrentExceptionMessage());
  if (!unit.Reporter) return;
  try {
    unit.Reporter(std::current_exception(), "Processing KZMsg");
  } catch (...) {
    ErrorLog().WriteLine("EXCEPTION Reporting KZMsg: " + CurrentExceptionMessage());
  }
}

// Runs the step; what it throws is reported and goes no further.
template <typename TStep>
void RunReported(TMessageUnit& unit, const TStep& step) {
  try {
    step();
  } catch (...) {
    ReportException(unit);
  }
}

// Finishes the call only after its wrapper is in the list: a caller that finds the call finished
// also finds the wrapper, unless the unit was stopped.
void HandBack(TMessageUnit& unit, std::unique_ptr<TMessageWrapper> wrapper) {
  const std::shared_ptr<TSynchronousCall> call = wrapper->Call;
  // The list refuses it when the unit was stopped meanwhile.
  static_cast<void>(unit.GDoneList.Append(wrapper));
  call->Finish();
  unit.GDoneEvent.Signal();
}

void Recycle(TMessageUnit& unit, std::unique_ptr<TMessageWrapper> wrapper) {
  // The deleter goes too, since it keeps the pool of a connection that may have ended.
  if (wrapper->Payload) wrapper->Payload = TMessagePayload();
  if (unit.Used.Count() < TMessageList::kMaxSpares) unit.Used.Append(std::move(wrapper));
}

void Deliver(TMessageUnit& unit, std::unique_ptr<TMessageWrapper> wrapper) {
  if (wrapper->Synchronous() && !wrapper->Call->Begin()) return;
  CountDelivered(unit, *wrapper);
  if (wrapper->Synchronous()) {
    RunReported(unit, [&] { wrapper->Call->RunCallback(); });
    HandBack(unit, std::move(wrapper));
    return;
  }
  // The receiver may be gone afterwards.
  RunReported(unit, [&] { wrapper->Receiver->WndMethod(wrapper->Message); });
  Recycle(unit, std::move(wrapper));
}

// One run of ProcessMessages. What was queued when it began is delivered however long that takes.
// What comes meanwhile is delivered only until the turn is over, so that a flood of messages leaves
// the main thread its other work. The delivery thread then asks for the next turn: the first
// message after the last refill has signalled its event.
class TDeliveryTurn {
 public:
  explicit TDeliveryTurn(TMessageUnit& unit) : FUnit(unit) {}

  // Null when the turn is over.
  std::unique_ptr<TMessageWrapper> TakeNext() {
    if (FUnit.Batch.Empty()) Refill();
    return FUnit.Batch.TakeFirst();
  }

 private:
  void Refill() {
    constexpr std::int64_t kLongestTurnMs = 50;
    if (FRefilled && SystemTickCount() - FStartTick >= kLongestTurnMs) return;
    FUnit.Batch = FUnit.GMsgList.TakeAll(std::move(FUnit.Used));
    if (FUnit.Batch.Empty() && FRefilled) {
      // In a stream of messages the next ones are about to come: letting their poster run is
      // cheaper than ending the turn and being woken for another.
      ::sched_yield();
      FUnit.Batch = FUnit.GMsgList.TakeAll({});
    }
    FRefilled = true;
  }

  TMessageUnit& FUnit;
  const std::int64_t FStartTick = SystemTickCount();
  bool FRefilled = false;
};

bool TakeIfFinished(TMessageUnit& unit, const TSynchronousCall& call) {
  const bool finished = call.Finished();
  const TMessageChain found = unit.GDoneList.TakeIf(
      [&](const TMessageWrapper& wrapper) { return wrapper.Call.get() == &call; });
  return finished || !found.Empty();
}

// All callers share the event, and a signal wakes only one of them. A caller that was woken for
// nothing signals the next one and sleeps 1 ms, or it would receive its own signal.
void HandSignalOn(TMessageUnit& unit) {
  if (unit.GDoneList.Empty()) return;
  unit.GDoneEvent.Signal();
  SystemClock().Sleep(milliseconds(1));
}

// Returns whether the call has run.
bool WaitForCall(TMessageUnit& unit, TSynchronousCall& call, std::uint64_t generation) {
  constexpr milliseconds kRound{500};
  while (!ShuttingDown(unit, generation) || !call.Abandon()) {
    KZCP::Checkpoint("BSy2");
    const bool signalled = unit.GDoneEvent.WaitFor(kRound);
    KZCP::Checkpoint("BSy3");
    if (TakeIfFinished(unit, call)) {
      if (!unit.GDoneList.Empty()) unit.GDoneEvent.Signal();
      return true;
    }
    if (signalled) HandSignalOn(unit);
  }
  // The next caller has to leave as well.
  unit.GDoneEvent.Signal();
  return false;
}

bool RunAtOnce(TMessageUnit& unit, const std::function<void()>& method) {
  if (!DeliveryAllowed(unit)) return false;
  RunReported(unit, method);
  return true;
}

void ReleaseSynchronousCalls(TMessageUnit& unit) {
  constexpr int kRounds = 41;
  for (int round = 0; round < kRounds && unit.SynchronousCalls.load() > 0; ++round) {
    unit.GDoneEvent.Signal();
    SleepSynchronizing(milliseconds(25));
  }
}

void EndDeliveryThread(TMessageUnit& unit) {
  constexpr milliseconds kLongestWait{3000};
  if (unit.SynchronousCalls.load() > 0) return;
  unit.DeliveryThread->Terminate();
  unit.DeliveryThread->WaitFor(kLongestWait);
  if (unit.DeliveryThread->Finished()) unit.DeliveryThread.reset();
}

// Gives up a thread that did not end in time. It finds the lists closed, whenever it looks.
void LeaveDeliveryThread(TMessageUnit& unit) {
  if (!unit.DeliveryThread) return;
  unit.DeliveryThread->Terminate();
  unit.LeftThreads.push_back(std::move(unit.DeliveryThread));
}

void ForgetEndedThreads(TMessageUnit& unit) {
  std::erase_if(unit.LeftThreads, [](const auto& thread) { return thread->Finished(); });
}

void CloseLists(TMessageUnit& unit) {
  const TMessageChain undelivered = unit.GMsgList.Close();
  const TMessageChain batch = std::move(unit.Batch);
  const TMessageChain used = std::move(unit.Used);
  const TMessageChain done = unit.GDoneList.Close();
  unit.GMsgEvent.Reset();
  unit.GDoneEvent.Reset();
}

bool Started(const TMessageUnit& unit) {
  return unit.Generation.load() > unit.ShutDownGeneration.load();
}

}  // namespace

TKZMessageReceiverClass::~TKZMessageReceiverClass() {
  if (IsMainThread()) RemoveMessagesFor(*this);
}

void StartMessages() {
  assert(IsMainThread());
  TMessageUnit& unit = Unit();
  if (Started(unit)) return;
  ForgetEndedThreads(unit);
  unit.Delivered.store(0);
  unit.LatencySumMs.store(0);
  unit.DeliveryThread = CreateThread<TMessageDeliveryThread>();
  ++unit.Generation;
  unit.GDoneList.Open();
  unit.GMsgList.Open();
}

void StopMessages() {
  assert(IsMainThread());
  TMessageUnit& unit = Unit();
  if (!Started(unit)) return;
  unit.ShutDownGeneration.store(unit.Generation.load());
  ReleaseSynchronousCalls(unit);
  EndDeliveryThread(unit);
  CloseLists(unit);
  LeaveDeliveryThread(unit);
  ForgetEndedThreads(unit);
}

void PostMessage(TKZMessageReceiverClass& receiver, std::uint32_t msg, std::int64_t wParam,
                 std::int64_t lParam, std::int64_t result) {
  auto wrapper = NewWrapper();
  wrapper->Message = {.Msg = msg, .WParam = wParam, .LParam = lParam, .Result = result};
  wrapper->Receiver = &receiver;
  Enqueue(Unit(), std::move(wrapper));
}

void PostMessage(TKZMessageReceiverClass& receiver, std::uint32_t msg, std::int64_t wParam,
                 TMessagePayload payload) {
  auto wrapper = NewWrapper();
  wrapper->Message = {.Msg = msg,
                      .WParam = wParam,
                      .LParam = reinterpret_cast<std::intptr_t>(payload->data()),
                      .Result = static_cast<std::int64_t>(payload->size())};
  wrapper->Receiver = &receiver;
  wrapper->Payload = std::move(payload);
  Enqueue(Unit(), std::move(wrapper));
}

TReservedMessage::TReservedMessage() : FWrapper(std::make_unique<TMessageWrapper>()) {}

TReservedMessage::~TReservedMessage() = default;

void TReservedMessage::Post(TKZMessageReceiverClass& receiver, std::uint32_t msg,
                            std::int64_t wParam, std::int64_t lParam) noexcept {
  FWrapper->Message = {.Msg = msg, .WParam = wParam, .LParam = lParam};
  FWrapper->Receiver = &receiver;
  Enqueue(Unit(), std::move(FWrapper));
}

std::string_view MessagePayload(const TKZMessage& message) noexcept {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): a message carries an address as a number.
  const auto* bytes = reinterpret_cast<const char*>(static_cast<std::intptr_t>(message.LParam));
  return {bytes, static_cast<std::size_t>(message.Result)};
}

bool CallInMainThread(std::function<void()> method) {
  TMessageUnit& unit = Unit();
  const std::uint64_t generation = unit.Generation.load();
  if (ShuttingDown(unit, generation)) return false;
  if (IsMainThread()) return RunAtOnce(unit, method);
  KZCP::Checkpoint("BSy1");
  bool ran = false;
  {
    ++unit.SynchronousCalls;
    const TAtEnd leave([&] { --unit.SynchronousCalls; });
    const auto call = std::make_shared<TSynchronousCall>(std::move(method));
    auto wrapper = std::make_unique<TMessageWrapper>();
    wrapper->Call = call;
    ran = Enqueue(unit, std::move(wrapper)) && WaitForCall(unit, *call, generation);
  }
  KZCP::Checkpoint("BSy4");
  return ran;
}

void ProcessMessages() {
  assert(IsMainThread());
  TMessageUnit& unit = Unit();
  TDeliveryTurn turn(unit);
  while (DeliveryAllowed(unit)) {
    auto wrapper = turn.TakeNext();
    if (wrapper == nullptr) return;
    Deliver(unit, std::move(wrapper));
  }
  unit.GMsgList.PutBack(std::move(unit.Batch));
}

void RemoveMessagesFor(const TKZMessageReceiverClass& receiver) {
  assert(IsMainThread());
  TMessageUnit& unit = Unit();
  const auto isForReceiver = [&](const TMessageWrapper& wrapper) {
    return wrapper.Receiver == &receiver;
  };
  const TMessageChain queued = unit.GMsgList.TakeIf(isForReceiver);
  const TMessageChain batch = unit.Batch.TakeIf(isForReceiver);
}

void StopDelivery() noexcept { Unit().DeliveryStopped.store(true); }

void ResumeDelivery() {
  Unit().DeliveryStopped.store(false);
  Unit().GMsgEvent.Signal();
}

bool DeliveryStopped() noexcept { return Unit().DeliveryStopped.load(); }

TMessageStatistics MessageStatistics() noexcept {
  const TMessageUnit& unit = Unit();
  return {.Delivered = unit.Delivered.load(), .LatencySumMs = unit.LatencySumMs.load()};
}

void SetMessageExceptionReporter(TMessageExceptionReporter reporter) {
  assert(IsMainThread());
  Unit().Reporter = std::move(reporter);
}

TKZThread::TKZThread(TThreadCreation creation, std::string name)
    : TThread(std::move(name), kThreadStackBytes), FCreation(creation) {}

void TKZThread::AfterConstruction() {
  if (FCreation == TThreadCreation::Running) Start();
}

int TKZThread::WaitFor(milliseconds timeout) {
  return WaitFinished(timeout) ? FExitCode.load() : -1;
}

void TKZThread::LetLooksBeLate() noexcept {
  constexpr std::chrono::nanoseconds kLate = milliseconds(20);
  ::prctl(PR_SET_TIMERSLACK, kLate.count());
}

void TKZThread::OnFinished() {
  TThread::OnFinished();
  KZCP::RemoveThread(KZCP::TRemoval::Forced);
}

}  // namespace guardian
