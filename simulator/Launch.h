#pragma once

#include <functional>
#include <string>

namespace guardian {

// Closes every descriptor from 3 up that the process was started with. First thing in the process,
// before anything of its own is open.
void CloseInheritedDescriptors() noexcept;

// Reports the daemon's readiness to whoever launched it; an error text where it cannot go on.
using TReportReady = std::function<void(const std::string& error)>;

// Detaches a copy of the process from terminal, session and standard handles, and runs the work in
// it. Returns in the calling process when the work has reported, with its error text, empty for
// none; an end without a report and 15 s of silence are errors too. Throws ESystemError when there
// is no process or descriptor left. Before any thread exists.
[[nodiscard]] std::string LaunchDaemon(const std::function<void(const TReportReady&)>& work);

}  // namespace guardian
