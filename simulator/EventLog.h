#pragma once

#include <string_view>

#include "simulator/Home.h"

namespace guardian {

// Appends "<date-time>: <text>" to the stand-in's log in one write, so that lines of the daemon and
// of a command never mix. When the log folder is gone, the line is lost: the daemon's standard
// handles lead to /dev/null, so there is no better place for it.
void LogEvent(const THome& home, std::string_view text) noexcept;

}  // namespace guardian
