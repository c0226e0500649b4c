#pragma once

#include <string>
#include <string_view>

#include "webstatus/ActivityLog.h"

namespace guardian {

class TCancellation;

// The tools that NAS systems have for writing to their system log, at their usual places.
struct TSystemLogTools {
  // Arguments: the text and the number of its kind.
  std::string WriteLog = "/sbin/write_log";
  // Arguments: "sys", the kind, an event id, the text.
  std::string SynologSet = "/usr/syno/bin/synologset1";
};

// Writes a text to the machine's system log: through the first of the tools that is there, without
// a shell, otherwise through syslog. When the tool fails or takes longer than 5 seconds, syslog
// gets a line about the tool and then the text. Never throws. Threads: any; blocks for the tool.
// Once the process is stopping, a running tool is ended within a second, and a tool that is started
// then has one second.
void WriteSystemLog(std::string_view message, TSystemLogKind kind, const TCancellation& stopping,
                    const TSystemLogTools& tools = {});

}  // namespace guardian
