#pragma once

#include <cstdint>
#include <string>

#include "common/Clock.h"
#include "diagnostics/checkpoints/Int64List.h"

namespace guardian {

// The resolution of the tick counter, and of every checkpoint time.
inline constexpr std::int64_t kTicksPerSecond = 1000;

// When a report is made: the local time and the tick count of the same moment.
struct TReportMoment {
  TDateTime Now = 0;
  std::int64_t Tick = 0;
};

enum class TReportDetail {
  Plain,        // One pass: each thread's checkpoint and the lock it waits for.
  WithHistory,  // A second pass, which adds the checkpoint histories.
};

// The part of the thread report that lists the threads, beginning with their number. The caller
// holds the list's lock. A fixed text stands for each piece that cannot be read.
[[nodiscard]] std::string ThreadListReport(const TInt64List& threads, const TReportMoment& moment,
                                           TReportDetail detail);

}  // namespace guardian
