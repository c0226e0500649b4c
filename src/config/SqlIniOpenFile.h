#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "common/Clock.h"
#include "config/SqlIniComponents.h"
#include "config/SqlIniPaths.h"

namespace guardian {

// The file of one store: opens it, notices when another file has taken its place, repairs it and
// backs it up. Failure lines are diagnostic messages (common/DiagnosticMessage.h).
//
// Owner: one store.
// Threads: not shared; the store's lock serialises the calls.
// Lifetime: the clock outlives it. In a process forked from the one that opened the file every
// operation fails, and the connection is never closed there, as that would release the locks of the
// other process.
class TSqlIniOpenFile {
 public:
  TSqlIniOpenFile(const std::string& fileName, TSqlIniAccess access, TClock& clock);
  ~TSqlIniOpenFile();
  TSqlIniOpenFile(const TSqlIniOpenFile&) = delete;
  TSqlIniOpenFile& operator=(const TSqlIniOpenFile&) = delete;

  [[nodiscard]] const std::string& Name() const noexcept { return FPaths.Store(); }
  [[nodiscard]] TSqlIniAccess Access() const noexcept { return FAccess; }

  // The connection to the file that has the name now. Opens the file when it is closed; after a
  // failure a read waits for a second before it tries again. A connection to a file that was
  // replaced is left: at once before a write, within 50 ms before a read. Throws KZException.
  [[nodiscard]] TSqlIniComponents& Connection(TSqlIniBegin kind);
  // Null while the file is closed.
  [[nodiscard]] TSqlIniComponents* Connected() const noexcept { return FConnection.get(); }

  // Opens the file anew; a missing, empty or damaged one is repaired first, at most once a minute
  // when the repair fails. Returns whether it is open; when not, a failure line says why.
  [[nodiscard]] bool TryOpen();
  // Ends the connection. Backs the file up first when its name no longer leads to any file: this
  // connection may be the last that can read it. A file in its place is not touched.
  void Close() noexcept;
  // Call it in a catch block of a read. Closes a connection that may have become useless. A damaged
  // file stays open, since other parts of it can be read and a write will repair it.
  void CloseAfterFailedRead();

  // Repairs the file if needed, and leaves it closed. Returns whether it is whole now; when not, a
  // failure line says why.
  [[nodiscard]] bool Repair();
  // As Repair; returns false at once within a minute after a repair that failed.
  [[nodiscard]] bool RepairIfDue();

  // Call it after each commit: once an hour it backs the file up if that is due.
  void NoteWritten();
  // Backs the file up if something was written and the newest backup is older than a day.
  void BackUpIfDue();

  // Call it in a catch block. Writes "TKZSQLIniFile.<operation> Exception: <message>" with the
  // file's name, which SQLite's messages leave out.
  void LogCurrentException(const char* operation) const;

 private:
  void Open();
  void OpenOrRepair();
  [[nodiscard]] bool Connect();
  // Waits for another process that replaces the file or its backups, and returns whether a backup
  // was made; when not, nothing has changed.
  bool TryBackUp(std::chrono::milliseconds wait) noexcept;
  // True in a process forked from the one that opened the file.
  [[nodiscard]] bool IsForeign() const;

  const TSqlIniPaths FPaths;
  const TSqlIniAccess FAccess;
  TClock& FClock;
  std::unique_ptr<TSqlIniComponents> FConnection;  // Null while the file is closed.
  pid_t FOpenedBy = 0;                             // 0 while the file is closed.
  std::string FOpenFailure;
  std::optional<TSqlIniOwnership> FOwnership;  // When the file was last seen.
  bool FChanged = false;                       // Written to since the last backup.
  // Ticks before which the work is not done again.
  std::int64_t FNextOpenTick = 0;
  std::int64_t FNextRepairTick = 0;
  std::int64_t FNextMovedCheckTick = 0;
  std::int64_t FNextBackupTick = 0;
};

}  // namespace guardian
