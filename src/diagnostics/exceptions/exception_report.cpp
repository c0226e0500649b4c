#include "diagnostics/exception_report.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cassert>
#include <cstdlib>
#include <memory>
#include <utility>

#include "common/Console.h"
#include "common/DiagnosticMessage.h"
#include "common/ErrorLog.h"
#include "common/Exceptions.h"
#include "common/MainThread.h"
#include "common/Mutex.h"
#include "common/NeverDestroyed.h"
#include "common/Settings.h"
#include "common/Thread.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/exceptions/ExceptionText.h"
#include "diagnostics/exceptions/FatalSignalReport.h"
#include "diagnostics/logs/ExceptionsLog.h"
#include "diagnostics/logs/ProtocolLog.h"

namespace guardian {
namespace {

using TOptions = std::shared_ptr<const TExceptionReportOptions>;

struct TReports {
  TMutex Lock;  // Held for the copy of a pointer.
  TOptions Options KZ_GUARDED_BY(Lock) = std::make_shared<const TExceptionReportOptions>();
  std::terminate_handler PreviousTerminate = nullptr;  // Main thread only.
  TReportThrottle Throttle;
};

// Made at first use, never freed: threads may fail until the very end of the process.
TReports& Reports() {
  static TNeverDestroyed<TReports> reports;
  return *reports;
}

TOptions Options() {
  TReports& reports = Reports();
  const TMutexLock lock(reports.Lock);
  return reports.Options;
}

void SetOptions(TExceptionReportOptions options) {
  auto next = std::make_shared<const TExceptionReportOptions>(std::move(options));
  TReports& reports = Reports();
  const TMutexLock lock(reports.Lock);
  reports.Options.swap(next);
}

// Atomics: changed and asked for by any thread.
constinit std::atomic<int> reportsInProgress = 0;
constinit std::atomic<bool> handling = false;

// How long the end of the process waits for the settings store.
constexpr std::chrono::seconds kStoreLimit{1};

// Runs a step of a report, which counts as a report in progress meanwhile. The hour of a thread
// report is stored when the report has been written.
template <typename TStep>
void Report(std::string_view where, const TStep& step) noexcept {
  ++reportsInProgress;
  Guarded(where, SystemClock(), step);
  --reportsInProgress;
  Guarded(where, SystemClock(), [] { Reports().Throttle.KeepNewTime(Options()->OpenStore); });
}

bool IsHarmless(const TExceptionDetails& details) {
  constexpr std::array<std::string_view, 4> kHarmless{
      "EIdConnClosedGracefully", "EClipboardException", "EZFException", "EFOpenError"};
  return details.Soft ||
         std::find(kHarmless.begin(), kHarmless.end(), details.ClassName) != kHarmless.end() ||
         details.Message == "Operation Canceled" ||
         details.ClassName.find("Socket") != std::string::npos;
}

// Whole lines. "N/A" when it fails: a failing thread report must not cost the rest of an
// exception's report.
std::string ThreadReportOrNote() noexcept try {
  std::string report = KZCP::ThreadReport(KZCP::TReportHeader::With);
  // The line for a lock that cannot be read has no line feed.
  if (!report.ends_with('\n')) report += '\n';
  return report;
} catch (...) {
  return "N/A\n";
}

std::string StringForm(const TExceptionDetails& details, const std::string& where,
                       TThreadReportPart threadReport) {
  if (IsHarmless(details)) return details.Message;
  if (Settings().DebugMode) KZAssert(reportsInProgress.load() > 0, "GetExceptionReport");
  const TOptions options = Options();
  return ExceptionStringForm(
      {.Details = details, .Where = where, .Clock = *options->Clock},
      threadReport == TThreadReportPart::With ? ThreadReportOrNote() : std::string());
}

// Ends in a line feed. Even a harmless exception, which has no thread report, counts as this hour's
// report.
std::string FileForm(const TExceptionDetails& details, const std::string& where) {
  const TOptions options = Options();
  const bool withThreads =
      Settings().DebugMode || Reports().Throttle.Admit(options->Clock->UtcNow());
  if (IsHarmless(details)) return details.Message + "\n";
  return ExceptionFileForm({.Details = details, .Where = where, .Clock = *options->Clock},
                           options->Heading, withThreads ? ThreadReportOrNote() : std::string());
}

// Hands the report over as one entry of a log that adds the line feed.
void WriteEntry(const TReportTarget& target, std::string_view report) {
  target(report.substr(0, report.size() - 1));
}

void WriteToErrorLog(std::string_view report) { ErrorLog().WriteLine(report); }

void Write(const TExceptionDetails& details, const std::string& where,
           const TReportTarget& target) {
  const std::string report = FileForm(details, where);
  if (target) return WriteEntry(target, report);
  if (ProtocolLogSettings().Enabled && !where.empty()) WriteEntry(WriteToErrorLog, report);
  const std::string name = AppendToExceptionsLog(report);
  if (!name.empty() && !IsHarmless(details)) DebugOutput("Exception details logged to " + name);
}

// No box can be shown here: a daemon has no display.
void ShowMessage(const std::string& text) {
  const std::string shown = "Application Error: " + (text == "\n" ? "Unknown error" : text);
  if (ErrorLog().Enabled()) ErrorLog().WriteLine(shown);
  DebugOutput(shown);
}

void HandleHarmless(const TExceptionDetails& details, const std::string& where) {
  if (ProtocolLogIsOpen()) {
    Write(details, where + " (soft exception in separate thread)", WriteProtocolLogLine);
  }
  const std::string text = details.Message + "\n" + where;
  if (KZCP::MessageBoxFlag()) {
    ShowMessage(text);
  } else if (ErrorLog().Enabled()) {
    ErrorLog().WriteLine(text);
  }
}

void HandleFault(const TExceptionDetails& details, TLogToFiles logToFiles,
                 const std::string& where) {
  if (logToFiles == TLogToFiles::Yes) {
    if (ErrorLog().Enabled()) Write(details, where, WriteToErrorLog);
    if (ProtocolLogIsOpen()) Write(details, where, WriteProtocolLogLine);
  }
  DebugOutput(StringForm(details, where, TThreadReportPart::With));
  Write(details, where, {});
}

void HandleEscaped(const std::string& threadName, const std::exception_ptr& error) {
  Guarded("Thread", SystemClock(),
          [&] { HandleException(error, TLogToFiles::Yes, "Thread " + threadName); });
}

// Reports an exception that nothing catches. The process then ends by SIGABRT, which makes a report
// of its own.
[[noreturn]] void HandleUnhandled() {
  static std::atomic<bool> begun = false;
  const std::exception_ptr error = std::current_exception();
  if (error && !begun.exchange(true)) {
    LimitLastWords();
    DebugOutput("Unhandled exception: " + MessageOf(error));
    WriteExceptionReport(error, "Unhandled exception");
    // A program that crashes again and again is to have one thread report an hour all the same.
    Reports().Throttle.WaitForStore(kStoreLimit);
  }
  std::abort();
}

}  // namespace

void StartExceptionReports(TExceptionReportOptions options) {
  assert(IsMainThread());
  KZCP::Checkpoint("KZExceptionReport ini");
  SetOptions(std::move(options));
  TThread::SetExceptionHandler(&HandleEscaped);
  Reports().PreviousTerminate = std::set_terminate(&HandleUnhandled);
  ExceptionsLogFolderChanged();
  InstallFatalSignalReports();
  KZCP::Checkpoint("KZExceptionReport ini done");
}

void StopExceptionReports() {
  assert(IsMainThread());
  RemoveFatalSignalReports();
  Reports().Throttle.WaitForStore(kStoreLimit);
  std::set_terminate(Reports().PreviousTerminate);
  TThread::SetExceptionHandler({});
  SetOptions({});
  // Only the store keeps the hour beyond the stop.
  Reports().Throttle.Forget();
}

void ExceptionsLogFolderChanged() {
  assert(IsMainThread());
  SetFatalSignalLog(ExceptionsLogName());
  if (Settings().LogDirectory.Get()->empty()) return;  // No folder, no store in it.
  Reports().Throttle.UseStore(Options()->OpenStore);
}

bool IsHarmless(const std::exception_ptr& error) { return IsHarmless(DescribeException(error)); }

void GetExceptionReport(std::string& text, const std::exception_ptr& error,
                        const std::string& where, TThreadReportPart threadReport) noexcept {
  Report("GetExceptionReport",
         [&] { text = StringForm(DescribeException(error), where, threadReport); });
}

void WriteExceptionReport(const std::exception_ptr& error, const std::string& where,
                          const TReportTarget& target) noexcept {
  Report("WriteExceptionReport", [&] { Write(DescribeException(error), where, target); });
}

void HandleException(const std::exception_ptr& error, TLogToFiles logToFiles,
                     const std::string& where) noexcept {
  // An exception that reaches another thread's handler meanwhile is not reported, on purpose: one
  // failure often brings others with it, and the first one counts.
  if (handling.exchange(true)) return;
  Report("HandleException", [&] {
    const TExceptionDetails details = DescribeException(error);
    if (IsHarmless(details)) return HandleHarmless(details, where);
    HandleFault(details, logToFiles, where);
  });
  handling.store(false);
}

int ExceptionReportsInProgress() noexcept { return reportsInProgress.load(); }

}  // namespace guardian
