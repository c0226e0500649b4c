#pragma once

#include <exception>
#include <functional>
#include <string>
#include <string_view>

#include "common/Clock.h"
#include "diagnostics/exceptions/ReportThrottle.h"

namespace guardian {

// The exception report: what failed, where, in which thread, with the stack and now and then the
// state of all threads. It is appended to the exceptions log in the log folder.
//
// None of these throws or waits for anything but the list of threads; what cannot be written is
// lost. The settings store, which is used once an hour at most, keeps only the thread that uses it.
// Threads: any thread may report at any time; start and stop by the main thread.
// Lifetime: reports may also be made before the start and after the stop.

struct TExceptionReportOptions {
  std::string Heading = {};              // The first line of each report in the log.
  TStoreOpener OpenStore = {};           // Where the time of the last thread report is kept.
  const TClock* Clock = &SystemClock();  // Outlives the process's last report.
};

// Makes the reports go where the process's hooks lead: what escapes a thread, what nobody catches,
// and the fatal signals. KZCP is initialised by then. Once until the stop.
void StartExceptionReports(TExceptionReportOptions options = {});

// Takes the hooks away. No thread that may fail runs any more.
void StopExceptionReports();

// To be called when the log folder has changed, for the signals: their handlers cannot ask for it.
void ExceptionsLogFolderChanged();

// An expected failure, which is told by its message alone: a SoftException, an exception of certain
// classes of the libraries, or an operation that the user has cancelled.
[[nodiscard]] bool IsHarmless(const std::exception_ptr& error);

enum class TThreadReportPart { Without, With };

// Makes the text the report of the exception; of a harmless one its message. Where is a line of the
// caller's, empty for none. Without memory the text may be incomplete.
void GetExceptionReport(std::string& text, const std::exception_ptr& error,
                        const std::string& where, TThreadReportPart threadReport) noexcept;

// Takes a report that goes elsewhere than to the exceptions log, without its last line feed.
using TReportTarget = std::function<void(std::string_view report)>;

// Appends the report to the exceptions log, or hands it to the target when there is one. It has the
// thread report at most once an hour, in debug mode always.
void WriteExceptionReport(const std::exception_ptr& error, const std::string& where,
                          const TReportTarget& target = {}) noexcept;

enum class TLogToFiles { No, Yes };

// The outer handler of a thread, for an exception that nobody below could deal with. With Yes the
// error log and the thread's protocol log get the report, too, as far as they are open.
void HandleException(const std::exception_ptr& error, TLogToFiles logToFiles,
                     const std::string& where) noexcept;

// How many reports are being made.
[[nodiscard]] int ExceptionReportsInProgress() noexcept;

}  // namespace guardian
