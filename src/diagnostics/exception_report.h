#pragma once

#include <exception>
#include <functional>
#include <string>
#include <string_view>

#include "common/Clock.h"
#include "diagnostics/exceptions/ReportThrottle.h"

namespace guardian {

// The exception report says what failed, where and in which thread. It shows the stack, and at most
// once an hour the state of all threads. It is appended to the exceptions log in the log folder.
//
// These functions do not throw; a report that cannot be written is lost. They wait for nothing but
// the list of threads and the disk: a thread of its own uses the settings store.
// Threads: any thread may report at any time; the main thread starts, stops and changes the folder.
// Lifetime: reports may also be made before the start and after the stop.

struct TExceptionReportOptions {
  std::string Heading = {};              // The first line of each report in the log.
  TStoreOpener OpenStore = {};           // Where the time of the last thread report is kept.
  const TClock* Clock = &SystemClock();  // Outlives the process's last report.
};

// Installs the process-wide hooks: from now on an exception that escapes a thread or that nothing
// catches, and every fatal signal, is reported. Call KZCP::Init before, and this once until the
// stop.
void StartExceptionReports(TExceptionReportOptions options = {});

// Removes the hooks. No thread that may fail runs any more. Waits at most a second for the settings
// store.
void StopExceptionReports();

// Call this when the log folder has changed: the signal handlers cannot ask for it, and the
// settings store may lie there.
void ExceptionsLogFolderChanged();

// Whether the exception is an expected failure, which is reported by its message alone: a
// SoftException, an exception of certain library classes, or an operation that the user cancelled.
[[nodiscard]] bool IsHarmless(const std::exception_ptr& error);

enum class TThreadReportPart { Without, With };

// Sets the text to the report of the exception; for a harmless exception, to its message. The
// caller says in one line where it was caught; the line may be empty. When memory runs out the text
// may be incomplete.
void GetExceptionReport(std::string& text, const std::exception_ptr& error,
                        const std::string& where, TThreadReportPart threadReport) noexcept;

// Receives a report that does not go to the exceptions log, without its last line feed.
using TReportTarget = std::function<void(std::string_view report)>;

// Appends the report to the exceptions log, or hands it to the target when there is one. The thread
// report is part of it at most once an hour, in debug mode always.
void WriteExceptionReport(const std::exception_ptr& error, const std::string& where,
                          const TReportTarget& target = {}) noexcept;

enum class TLogToFiles { No, Yes };

// The outer handler of a thread, for an exception that no function below could deal with. With Yes
// the report also goes to the error log and to the thread's protocol log, if they are open.
void HandleException(const std::exception_ptr& error, TLogToFiles logToFiles,
                     const std::string& where) noexcept;

// The number of reports that are being made.
[[nodiscard]] int ExceptionReportsInProgress() noexcept;

}  // namespace guardian
