#pragma once

#include <string>
#include <string_view>

#include "common/Clock.h"
#include "diagnostics/jobs/MutexRegistry.h"

namespace guardian {

// The plain-text reports of the diagnostics. Neither keeps a file open between calls, and neither
// ever throws. A report is a file of its own: one that has the name of an older file takes its
// place. Threads: any.

// "12:00:00", or "1 Day(s) plus 12:00:00" from a day on. Empty for what is no duration: a negative
// number of days, one that is not finite, more than a million years.
[[nodiscard]] std::string FormatDuration(TDateTime duration);

// Writes "Vellumark Run Report <date and time>.txt" into the report folder: the reason, the
// registered job mutexes, the thread report and what the report provider of each profile renders.
// Two reports within one second replace one another. Holds the registry's lock while the file is
// written; report providers run under it. A failure sets ReportingMalfunction and is named in the
// error log; what had been written stays.
void WriteRunReport(TMutexRegistry& registry, std::string_view reason) noexcept;

// The same for the process-wide registry.
void WriteRunReport(std::string_view reason) noexcept;

// Writes the thread report, with its header, into
// "<program>-PID<process id>[.<name>].activityreport-<date and time>.<milliseconds>.txt". The
// folder is remembered, cut to 255 bytes; an empty one stands for the folder remembered last, and
// before there is one for the log directory, or the temporary one. A failure is named in the error
// log.
void SaveActivityReport(std::string_view folder, std::string_view name) noexcept;
void SaveActivityReport(std::string_view folder, std::string_view name,
                        const TClock& clock) noexcept;

}  // namespace guardian
