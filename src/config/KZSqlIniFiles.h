#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Clock.h"
#include "common/KZCustomINIFile.h"
#include "common/ThreadAnnotations.h"
#include "config/SqlIniComponents.h"
#include "config/SqlIniOpenFile.h"
#include "diagnostics/KZCriticalSection.h"

namespace guardian {

enum class TSectionCreation { No, IfMissing };

// Settings in an SQLite file that many processes and threads read and write. The file has the
// tables DBVersion, SECTIONS and DATA; a value of at most 100 printable ASCII characters is text in
// DATA.VALUE, any other is bytes in DATA.BINVALUE. Names may be empty and hold anything but a zero
// byte; they are told apart byte by byte.
//
// What is promised for a value once WriteString has returned without a failure line, and
// TryWriteString true: it is there after kill -9 of any process, and after a power cut, as far as
// the disk keeps what it has said to be written. A value is there whole or not at all. The file is
// kept with a rollback journal that each commit truncates and syncs ("synchronous=FULL"). That
// needs no memory shared with other processes, only locks; so it also holds on the network file
// systems of NAS boxes that have working POSIX locks. An empty "-journal" file beside the database
// is normal.
//
// A missing, empty or damaged file is repaired when it is opened, and a damaged one also when a
// write meets the damage; TSqlIniRepair says from what, TSqlIniPaths which files lie beside it. The
// order never leaves less than before: the damaged file keeps its place until a checked new one
// takes it, and is then kept under another name; deleted settings may come back, but no setting
// that could be read is lost. A store that has the old file open finds the new one with its next
// write, or after 50 ms with its next read. A database with other tables that has no good backup, a
// folder or a device is left alone, and so is every file of a read-only store. A file that is
// deleted is saved by the stores that have it open, unless another one was made in its place
// before.
//
// Backups: at UpdateFile, when the store is closed, and once an hour at a write, a store that has
// written copies the file to the folder "CfgBackups" beside it, when the newest backup is older
// than a day and SQLite's integrity check finds nothing wrong with the copy; five are kept.
//
// Failures: a failure line goes to the error log while that is open, otherwise to the debug output,
// the same line at most once an hour. Reads then return the default, or nothing. A write is tried
// three times, and the file is opened anew in between. Every operation throws KZException "SQLIni
// nil in " + its name while there are no components; besides that, only std::bad_alloc.
//
// Owner: the code that keeps the settings; many threads may share one store, or have one each.
// Threads: any thread may call anything; the lock serialises the one connection and is held while a
// statement runs and a failure line is written. A call waits for other connections at most
// kSqlIniBusyTimeout at a time, a write three times that; one that repairs takes as long as a dump
// takes, at most five minutes, and as a look-up of each value does.
// Lifetime: the clock outlives it. Not usable in a process forked from the one that opened it.
class TKZSQLIniFile final : public TKZCustomINIFile {
 public:
  // Opens the file, or makes it. When that fails, a failure line says why; every write, and a read
  // once a second, tries again. A repair that failed is tried again after a minute.
  explicit TKZSQLIniFile(const std::string& fileName,
                         TSqlIniAccess access = TSqlIniAccess::ReadWrite,
                         TClock& clock = SystemClock());
  ~TKZSQLIniFile() override;

  [[nodiscard]] std::string ReadString(std::string_view section, std::string_view key,
                                       std::string_view defaultValue) override KZ_EXCLUDES(FLock);
  // Does nothing in a read-only store. Passes the checkpoints "Ini Write " with the names, and "Ini
  // WriteX".
  void WriteString(std::string_view section, std::string_view key, std::string_view value) override
      KZ_EXCLUDES(FLock);
  // As WriteString; returns whether the value is stored.
  [[nodiscard]] bool TryWriteString(std::string_view section, std::string_view key,
                                    std::string_view value) KZ_EXCLUDES(FLock);

  [[nodiscard]] std::vector<std::string> ReadSection(std::string_view section) override
      KZ_EXCLUDES(FLock);
  // In the order in which they were first written.
  [[nodiscard]] std::vector<std::string> ReadSections() override KZ_EXCLUDES(FLock);
  [[nodiscard]] std::vector<std::string> ReadSectionValues(std::string_view section) override
      KZ_EXCLUDES(FLock);
  [[nodiscard]] bool ValueExists(std::string_view section, std::string_view key) override
      KZ_EXCLUDES(FLock);

  // These do nothing in a read-only store.
  void DeleteKey(std::string_view section, std::string_view key) override KZ_EXCLUDES(FLock);
  void EraseSection(std::string_view section) override KZ_EXCLUDES(FLock);
  void UpdateFile() override KZ_EXCLUDES(FLock);

  // Commits the connection's transaction unless it is in auto-commit mode. It always is between two
  // operations, as each write commits at once.
  void CommitNow() KZ_EXCLUDES(FLock);
  // The local wall time of the last commit, 0 before the first.
  [[nodiscard]] TDateTime LastCommitAt() const noexcept { return FLastCommitAt.load(); }

  // The number of keys of the section, or of the file; 0 as well when they cannot be read.
  [[nodiscard]] std::int64_t CountKeys(std::string_view section) KZ_EXCLUDES(FLock);
  [[nodiscard]] std::int64_t CountKeys() KZ_EXCLUDES(FLock);

  // Nothing when there is no such section, or when it cannot be read or made.
  [[nodiscard]] std::optional<std::int64_t> GetSectionID(std::string_view section,
                                                         TSectionCreation creation)
      KZ_EXCLUDES(FLock);
  [[nodiscard]] std::optional<std::string> GetSectionName(std::int64_t id) KZ_EXCLUDES(FLock);

  // Opens the file anew. Returns whether it is open.
  bool OpenDatabase() KZ_EXCLUDES(FLock);
  // Closes the file; the next operation opens it again.
  void CloseDatabase() KZ_EXCLUDES(FLock);
  // As CloseDatabase; from now on every operation throws until CreateComponents, as before a fork.
  void DestroyComponents() KZ_EXCLUDES(FLock);
  void CreateComponents() KZ_EXCLUDES(FLock);
  // Repairs the file if needed. Returns whether it is whole now.
  bool AttemptRepair() KZ_EXCLUDES(FLock);

  // Whether writes edit a row without looking for it first; a missing row is still inserted.
  void ForceEdit(TSqlIniEdit edit) KZ_EXCLUDES(FLock);

  [[nodiscard]] const std::string& FileName() const noexcept { return FFile.Name(); }

 private:
  // What CreateComponents creates beside the connection and its statements.
  struct TComponents {
    TSqlIniEdit Edit = TSqlIniEdit::LookFirst;
  };
  using TStatements = std::function<void(TSqlIniComponents& database)>;

  void CheckComponentsLocked(const char* operation) const KZ_REQUIRES(FLock);

  // Runs statements that only read, in one transaction; a failure is logged.
  void Read(const char* operation, const TStatements& statements) KZ_EXCLUDES(FLock);
  void ReadLocked(const TStatements& statements) KZ_REQUIRES(FLock);
  // Runs statements that write, commits them, and recovers from failures. Returns whether they are
  // committed.
  bool Write(const char* operation, const TStatements& statements) KZ_EXCLUDES(FLock);
  void WriteLocked(const TStatements& statements) KZ_REQUIRES(FLock);
  void CommitLocked() KZ_REQUIRES(FLock);
  [[nodiscard]] std::optional<std::int64_t> FindSection(TSqlIniComponents& database,
                                                        std::string_view section,
                                                        TSectionCreation creation) const;

  // What to do about the failure that is being handled. Returns whether to try again.
  [[nodiscard]] bool RecoverLocked(const char* operation) KZ_REQUIRES(FLock);
  [[nodiscard]] bool ReopenLocked(const char* operation) KZ_REQUIRES(FLock);
  [[nodiscard]] bool RepairAfterDamageLocked() KZ_REQUIRES(FLock);

  void Log(const std::string& line) const;

  TClock& FClock;
  std::atomic<TDateTime> FLastCommitAt = 0;  // Atomic: read without the lock.
  TKZCriticalSection FLock{"SqlIni"};
  TSqlIniOpenFile FFile;  // Used under the lock, but for its name and access, which never change.
  std::unique_ptr<TComponents> FComponents KZ_GUARDED_BY(FLock);
  int FAttempts KZ_GUARDED_BY(FLock) = 0;  // Of the write that runs now.
};

}  // namespace guardian
