#pragma once

#include <functional>
#include <string>

namespace guardian {

// Closes every descriptor from 3 up that the process was started with. Call it before the process
// opens any of its own.
void CloseInheritedDescriptors() noexcept;

// Reports to the launching process that the daemon is ready, or why it cannot go on. An empty text
// means ready.
using TReportReady = std::function<void(const std::string& error)>;

// Detaches a copy of the process from terminal, session and standard handles, and runs the work in
// it. Returns in the calling process when the work has reported: the error text, empty for none. It
// is an error too when the daemon ends without a report or does not report within 15 s. Throws
// ESystemError when the system has no process or descriptor left. Call it before any thread exists.
[[nodiscard]] std::string LaunchDaemon(const std::function<void(const TReportReady&)>& work);

}  // namespace guardian
