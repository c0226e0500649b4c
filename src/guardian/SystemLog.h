#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "common/Thread.h"
#include "webstatus/ActivityLog.h"

namespace guardian {

// Hands a text over to the machine's system log and returns at once: it waits in a queue for the
// thread of the TSystemLogWriter, in the order of the calls. Returns false when the text is dropped
// because the queue is full, that is, 256 texts wait for a system log that takes none, or because
// memory ran out or the writer has ended. How many were dropped is written once the log takes texts
// again. Never throws.
// Threads: any, also before there is a writer.
bool WriteSystemLog(std::string_view message, TSystemLogKind kind) noexcept;

// The tools that NAS systems have for writing to their system log, at their usual places.
struct TSystemLogTools {
  // Arguments: the text and the number of its kind.
  std::string WriteLog = "/sbin/write_log";
  // Arguments: "sys", the kind, an event id, the text.
  std::string SynologSet = "/usr/syno/bin/synologset1";
};

// Writes the texts of WriteSystemLog to the machine's system log in a thread of its own, so that a
// log that stands still holds nobody. Each text goes through the first of the tools that is there,
// without a shell, otherwise through syslog. When the tool fails or takes longer than 5 seconds,
// syslog gets a line about the tool and then the text.
// Owner: the entry; at most one at a time, made after the process has become a daemon.
// Threads: the owner's.
// Lifetime: the destructor waits a second at most for the texts that wait. A thread that stands
// still then ends with the process, and a tool that runs then goes on.
class TSystemLogWriter {
 public:
  explicit TSystemLogWriter(TSystemLogTools tools = {});
  ~TSystemLogWriter();
  TSystemLogWriter(const TSystemLogWriter&) = delete;
  TSystemLogWriter& operator=(const TSystemLogWriter&) = delete;

 private:
  class TWriterThread;

  std::unique_ptr<TThread> FThread;
};

}  // namespace guardian
