#pragma once

#include <string>
#include <string_view>

#include "common/Clock.h"
#include "diagnostics/jobs/MutexRegistry.h"

namespace guardian {

// The run report and the activity report. Both are plain text, each in a file of its own; a new
// report replaces an older file of the same name. No file stays open between calls.
//
// For other programs of the maker: the Guardian has no job mutexes to report, and saves no activity
// report.
// Threads: any.

// "12:00:00", or "1 Day(s) plus 12:00:00" from a day on. Empty for a number of days that is
// negative, not finite or above a million years.
[[nodiscard]] std::string FormatDuration(TDateTime duration);

// Writes "Vellumark Run Report <date and time>.txt" into the report folder: the reason, the
// registered job mutexes, the thread report and the text of each profile's report provider. Two
// reports within one second replace one another. Holds the registry's lock while the file is
// written and while report providers run. A failure sets ReportingMalfunction and is named in the
// error log; the part that had been written stays.
void WriteRunReport(TMutexRegistry& registry, std::string_view reason) noexcept;

// The same for the process-wide registry.
void WriteRunReport(std::string_view reason) noexcept;

// Writes the thread report, with its header, into
// "<program>-PID<process id>[.<name>].activityreport-<date and time>.<milliseconds>.txt". The
// folder is remembered, cut to 255 bytes. An empty folder stands for the remembered one, or for
// LogFolder() while none is remembered. A failure is named in the error log.
void SaveActivityReport(std::string_view folder, std::string_view name) noexcept;

}  // namespace guardian
