#pragma once

#include <string>
#include <string_view>

#include "webstatus/ActivityLog.h"

namespace guardian {

class TCancellation;

// The tools by which NAS systems take entries of their system log, each at its place there.
struct TSystemLogTools {
  std::string WriteLog = "/sbin/write_log";              // The text and the kind's code.
  std::string SynologSet = "/usr/syno/bin/synologset1";  // "sys", the kind, an event id, the text.
};

// Hands a text to the machine's system log: to the first of the tools that is there, by a plain
// argument vector, otherwise to syslog. A tool that fails or takes longer than 5 seconds leaves the
// text, and a line about itself, to syslog.
// Threads: any; blocks for the tool. Once the process is stopping a tool under way is ended within
// a second, and has a second from its start. Never throws.
void WriteSystemLog(std::string_view message, TSystemLogKind kind, const TCancellation& stopping,
                    const TSystemLogTools& tools = {});

}  // namespace guardian
