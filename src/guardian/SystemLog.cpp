#include "guardian/SystemLog.h"

#include <syslog.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "common/Cancellation.h"
#include "guardian/process.h"

namespace guardian {
namespace {

void WriteSyslog(int priority, std::string_view message) {
  ::openlog("VellumarkGuardian", LOG_PID, LOG_DAEMON);
  ::syslog(priority, "%.*s", static_cast<int>(message.size()), message.data());
  ::closelog();
}

int SyslogPriority(TSystemLogKind kind) {
  switch (kind) {
    case TSystemLogKind::Error:
      return LOG_ERR;
    case TSystemLogKind::Warning:
      return LOG_WARNING;
    case TSystemLogKind::Information:
      break;
  }
  return LOG_INFO;
}

const char* SynologKind(TSystemLogKind kind) {
  switch (kind) {
    case TSystemLogKind::Error:
      return "err";
    case TSystemLogKind::Warning:
      return "warn";
    case TSystemLogKind::Information:
      break;
  }
  return "info";
}

bool IsThere(const std::string& tool) { return ::access(tool.c_str(), X_OK) == 0; }

// The tool's argument vector; empty on a machine without such a tool.
std::vector<std::string> ToolCommand(std::string_view message, TSystemLogKind kind,
                                     const TSystemLogTools& tools) {
  constexpr const char* kPlainTextEvent = "0x11100000";
  if (IsThere(tools.WriteLog)) {
    return {tools.WriteLog, std::string(message), std::to_string(static_cast<int>(kind))};
  }
  if (IsThere(tools.SynologSet)) {
    return {tools.SynologSet, "sys", SynologKind(kind), kPlainTextEvent, std::string(message)};
  }
  return {};
}

// The process writes its last entries while it is stopping, so the cancellation must not refuse
// them.
int RunTool(const std::vector<std::string>& command, const TCancellation& stopping) {
  constexpr int kTimeoutSec = 5;
  constexpr int kStoppingTimeoutSec = 1;
  return stopping.IsCancelled() ? RunProgram(command, kStoppingTimeoutSec)
                                : RunProgram(command, kTimeoutSec, &stopping);
}

}  // namespace

void WriteSystemLog(std::string_view message, TSystemLogKind kind, const TCancellation& stopping,
                    const TSystemLogTools& tools) {
  const std::vector<std::string> command = ToolCommand(message, kind, tools);
  if (!command.empty()) {
    const int exitCode = RunTool(command, stopping);
    if (exitCode == 0) return;
    WriteSyslog(LOG_WARNING, "System log tool failed: " + command.front() + ", exit code " +
                                 std::to_string(exitCode));
  }
  WriteSyslog(SyslogPriority(kind), message);
}

}  // namespace guardian
