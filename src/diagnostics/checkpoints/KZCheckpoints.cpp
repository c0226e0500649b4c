#include "diagnostics/KZCheckpoints.h"

#include <memory>
#include <vector>

#include "common/AtEnd.h"
#include "common/Clock.h"
#include "common/Console.h"
#include "common/DiagnosticMessage.h"
#include "common/ErrorLog.h"
#include "common/Exceptions.h"
#include "common/Mutex.h"
#include "common/NeverDestroyed.h"
#include "common/Progress.h"
#include "common/Settings.h"
#include "common/Thread.h"
#include "common/ThreadChecker.h"
#include "common/ThreadSlot.h"
#include "common/WideText.h"
#include "diagnostics/checkpoints/CheckpointProfile.h"
#include "diagnostics/checkpoints/CheckpointRecord.h"
#include "diagnostics/checkpoints/CheckpointTrace.h"
#include "diagnostics/checkpoints/Int64List.h"
#include "diagnostics/checkpoints/ThreadReport.h"

namespace guardian::KZCP {
namespace {

// What the facility keeps of the calling thread.
struct TThreadState {
  TThreadState() = default;
  ~TThreadState();
  TThreadState(const TThreadState&) = delete;
  TThreadState& operator=(const TThreadState&) = delete;

  const std::shared_ptr<TCheckpointRecord> Record = std::make_shared<TCheckpointRecord>();
  TCheckpointTrace Trace;
  std::uint64_t ListedIn = 0;  // The generation of the list it is in, 0 when in none.
  TThreadId ListedAs = 0;
};

using TThisThread = TThreadSlot<TThreadState>;

struct TProcessState {
  TMutex ListLock;
  std::unique_ptr<TInt64List> ThreadCPList KZ_GUARDED_BY(ListLock);
  std::uint64_t Generations KZ_GUARDED_BY(ListLock) = 0;
  std::string RegistrationTrace KZ_GUARDED_BY(ListLock);
  TCheckpointProfile Profile;
};

// Made at first use, never freed: threads may pass checkpoints until the very end of the process.
TProcessState& Process() {
  static TNeverDestroyed<TProcessState> state;
  return *state;
}

constinit TCheckpointSwitches switches;

// The number of the list that exists; 0 while there is none. Atomic: every checkpoint compares it
// with the number of the list that its thread is in. It changes under the list's lock.
constinit std::atomic<std::uint64_t> listGeneration = 0;

// Atomics: any thread reads them, each for itself.
constinit std::atomic<bool> profilingReady = false;
constinit std::atomic<TThreadId> mainThreadId = 0;
constinit std::atomic<TThreadId> reportingThreadId = 0;

constinit thread_local bool messageBoxFlag = false;

// Finds calls of Init and Fini from a second thread.
constinit TThreadChecker mainThreadChecker;

// A step of a checkpoint that is more than to note it; it can fail for lack of memory.
template <typename TStep>
void TryStep(const TStep& step) noexcept {
  Guarded("KZCP.Checkpoint", SystemClock(), step);
}

void TraceToFile(TThreadState& thread, std::string_view text) {
  if (switches.CPFileTrace) thread.Trace.Write(text);
}

void TraceToFile(std::string_view text) {
  TThreadState* const thread = TThisThread::Get();
  if (thread != nullptr) TraceToFile(*thread, text);
}

void TracePassing(TThreadState& thread, std::string_view text) {
  if (switches.RawErrorLogTrace) ErrorLog().WriteLine(text);
  TraceToFile(thread, text);
  if (switches.DebugOutputTrace) DebugOutput(text);
}

void AccountTime(const TThreadState& thread, std::string_view text, std::int64_t now) {
  if (!profilingReady) return;
  const auto ticks = TCheckpointProfile::CountedTicks(thread.Record->CPTime(), now);
  if (ticks) Process().Profile.Account(CurrentThreadId(), text, *ticks);
}

// Called for a thread that is not in the present list: at its first checkpoint, and at the next one
// after the list has been freed or made anew.
void Register(TThreadState& thread, std::string_view text) {
  constexpr std::size_t kTraceLimit = 250;
  TProcessState& process = Process();
  const TMutexLock lock(process.ListLock);
  if (thread.ListedIn != 0) thread.Record->DropHistory();
  thread.ListedIn = 0;
  if (process.ThreadCPList == nullptr) return;
  thread.ListedAs = CurrentThreadId();
  process.ThreadCPList->Add(thread.ListedAs, thread.Record);
  thread.ListedIn = listGeneration;
  if (Settings().DebugMode && process.RegistrationTrace.size() < kTraceLimit) {
    process.RegistrationTrace += std::to_string(thread.ListedAs) + "/";
    process.RegistrationTrace.append(text).append(" ");
  }
}

void AppendHistory(TThreadState& thread, std::string_view text) {
  if (thread.Record->AppendHistory(text, thread.Record->CPTime())) return;
  switches.HistoryOverflow = true;
  switches.History = false;
}

// Leaves out the checkpoints of the folder search and traversal: there are too many of them.
void TraceToErrorLog(std::string_view text) {
  if (!ErrorLog().Enabled() || text.starts_with("Find") || text.starts_with("Trav")) return;
  std::string line;
  if (switches.TimeStampErrorLogTrace) line = DateTimeToStr(SystemClock().Now()) + " ";
  ErrorLog().WriteLine(line.append("CP ").append(text));
}

bool IsTracing() noexcept {
  constexpr auto kRelaxed = std::memory_order_relaxed;
  return switches.RawErrorLogTrace.load(kRelaxed) || switches.CPFileTrace.load(kRelaxed) ||
         switches.DebugOutputTrace.load(kRelaxed);
}

void Pass(TThreadState& thread, std::string_view text) noexcept {
  constexpr auto kRelaxed = std::memory_order_relaxed;
  if (IsTracing()) TryStep([&] { TracePassing(thread, text); });
  const std::int64_t now = SystemTickCount();
  if (switches.Profiling.load(kRelaxed)) TryStep([&] { AccountTime(thread, text, now); });
  thread.Record->Pass(text, now);
  if (thread.ListedIn != listGeneration.load(kRelaxed)) TryStep([&] { Register(thread, text); });
  if (switches.History.load(kRelaxed)) TryStep([&] { AppendHistory(thread, text); });
  if (switches.ErrorLogTrace.load(kRelaxed)) TryStep([&] { TraceToErrorLog(text); });
}

void Unlist(TThreadState& thread) {
  TProcessState& process = Process();
  const TMutexLock lock(process.ListLock);
  if (process.ThreadCPList == nullptr || thread.ListedIn != listGeneration) return;
  const auto listed = process.ThreadCPList->Find(thread.ListedAs);
  if (listed == nullptr) return;
  if (Settings().DebugMode && listed != thread.Record) throw KZException("ThreadCPList Error");
  thread.Record->DropHistory();
  process.ThreadCPList->Delete(thread.ListedAs);
  thread.ListedIn = 0;
}

TThreadState::~TThreadState() {
  if (ListedIn == 0) return;
  try {
    Unlist(*this);
    TraceToFile(*this, "REMOVING THREAD FROM CP LIST");
  } catch (...) {
    ErrorLog().WriteLine(CurrentExceptionMessage());
  }
}

// The record of the calling thread or of a listed one; null for any other thread.
std::shared_ptr<TCheckpointRecord> FindRecord(TThreadId threadId) {
  if (threadId == CurrentThreadId()) {
    const TThreadState* const thread = TThisThread::Get();
    return thread != nullptr ? thread->Record : nullptr;
  }
  TProcessState& process = Process();
  const TMutexLock lock(process.ListLock);
  return process.ThreadCPList != nullptr ? process.ThreadCPList->Find(threadId) : nullptr;
}

std::vector<std::string> LeaveAwaitedLocks() {
  std::vector<std::string> failures;
  TProcessState& process = Process();
  const TMutexLock lock(process.ListLock);
  if (process.ThreadCPList == nullptr) return failures;
  for (const auto& item : process.ThreadCPList->Items()) {
    try {
      item.Record->LeaveAwaitedLock();
    } catch (...) {
      failures.push_back(CurrentExceptionMessage());
    }
  }
  return failures;
}

}  // namespace

TCheckpointSwitches& Switches() noexcept { return switches; }

void Init() {
  mainThreadChecker.Check();
  TraceToFile("KZCP.Init");
  if (!Settings().DebugMode) switches.Profiling = false;
  if (switches.Profiling) profilingReady = true;
  mainThreadId = CurrentThreadId();
  SetProgressHook([](std::string_view place) noexcept { Checkpoint(place); });
  TProcessState& process = Process();
  const TMutexLock lock(process.ListLock);
  if (process.ThreadCPList != nullptr) return;
  process.ThreadCPList = std::make_unique<TInt64List>("ThreadCPList", 1000);
  listGeneration = ++process.Generations;
}

void Fini(void (*endFirst)()) {
  mainThreadChecker.Check();
  TraceToFile("KZCP.Fini");
  if (endFirst != nullptr) endFirst();
  SetProgressHook(nullptr);
  profilingReady = false;
  TProcessState& process = Process();
  process.Profile.Clear();
  const TMutexLock lock(process.ListLock);
  listGeneration = 0;
  process.ThreadCPList.reset();
  process.RegistrationTrace.clear();
  mainThreadChecker.Detach();
}

void Checkpoint(std::string_view text) noexcept {
  TThreadState* const thread = TThisThread::Get();
  if (thread != nullptr) Pass(*thread, text);
}

void Checkpoint(std::u16string_view text) noexcept {
  TryStep([&] { Checkpoint(std::string_view(Utf16ToUtf8(text))); });
}

void Checkpoint(const TShortString& text) noexcept {
  Checkpoint(std::string_view(text.Text.data(), text.Length));
}

std::string CurrentCP(TThreadId threadId) {
  const auto record = FindRecord(threadId);
  if (record != nullptr) return record->CurrentCP();
  if (threadId == CurrentThreadId()) return "";
  return listGeneration != 0 ? "N/A" : "NA";
}

TCPTimes CPTime(TThreadId threadId) {
  const auto record = FindRecord(threadId);
  if (record == nullptr) return {};
  return {record->CPTime(), record->PreviousCPTime()};
}

void SetAllowance(std::int64_t seconds) noexcept {
  TCheckpointRecord* const record = CurrentRecord();
  if (record != nullptr) record->SetAllowance(seconds);
}

double ElapsedSeconds(std::int64_t cpTime) noexcept {
  return static_cast<double>(SystemTickCount() - cpTime) / static_cast<double>(kTicksPerSecond);
}

std::int64_t ElapsedMilliseconds(std::int64_t cpTime) noexcept {
  return (SystemTickCount() - cpTime) * 1000 / kTicksPerSecond;
}

void RemoveThread(TRemoval removal) {
  if (messageBoxFlag && removal == TRemoval::Normal) return;
  TThreadState* const thread = TThisThread::Get();
  if (thread == nullptr) return;
  Unlist(*thread);
  TryStep([&] { TraceToFile(*thread, "REMOVING THREAD FROM CP LIST"); });
}

void ReleaseRogueLocks() {
  for (const auto& failure : LeaveAwaitedLocks()) {
    ErrorLog().WriteLine("Exception leaving rogue critical section: " + failure);
  }
}

std::string ThreadReport(TReportHeader header) {
  std::string text;
  if (header == TReportHeader::With) text = "Thread Report\n-----------------\n";
  text +=
      "Main thread ID: " + std::to_string(mainThreadId) + ", CP: " + CurrentCP(mainThreadId) + "\n";
  TProcessState& process = Process();
  const TMutexLock lock(process.ListLock);
  if (process.ThreadCPList == nullptr) return text;
  text += "Performance Counter Resolution: " + std::to_string(kTicksPerSecond) +
          " ticks per second.\n\n";
  reportingThreadId = CurrentThreadId();
  const TAtEnd reported([] { reportingThreadId = 0; });
  const TReportMoment moment{SystemClock().Now(), SystemTickCount()};
  const auto detail = switches.History ? TReportDetail::WithHistory : TReportDetail::Plain;
  return text.append(ThreadListReport(*process.ThreadCPList, moment, detail));
}

TThreadId ReportingThreadId() noexcept { return reportingThreadId; }

TThreadId MainThreadId() noexcept { return mainThreadId; }

std::string RegistrationTrace() {
  TProcessState& process = Process();
  const TMutexLock lock(process.ListLock);
  return process.RegistrationTrace;
}

void WriteProfilingResults() {
  Process().Profile.WriteResults([](std::string_view line) { ErrorLog().WriteLine(line); });
}

bool MessageBoxFlag() noexcept { return messageBoxFlag; }

void SetMessageBoxFlag(bool set) noexcept { messageBoxFlag = set; }

TCheckpointRecord* CurrentRecord() noexcept {
  const TThreadState* const thread = TThisThread::Get();
  return thread != nullptr ? thread->Record.get() : nullptr;
}

const TCheckpointRecord* PeekRecord() noexcept {
  const TThreadState* const thread = TThisThread::Peek();
  return thread != nullptr ? thread->Record.get() : nullptr;
}

}  // namespace guardian::KZCP
