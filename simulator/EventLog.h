#pragma once

#include <string_view>

#include "simulator/Home.h"

namespace guardian {

// Appends "<date-time>: <text>" to the stand-in's log as one line, whole also when the daemon and
// a command write at once. A log folder that has gone is not made again and the line is lost: the
// daemon's standard handles lead nowhere, so there is no better place for it.
void LogEvent(const THome& home, std::string_view text) noexcept;

}  // namespace guardian
