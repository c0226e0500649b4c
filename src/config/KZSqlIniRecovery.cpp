// The part of the store that opens, repairs and backs up its file.

#include <unistd.h>

#include <exception>
#include <utility>

#include "common/Console.h"
#include "common/Exceptions.h"
#include "config/KZSqlIniFiles.h"
#include "config/SqlIniLock.h"
#include "config/SqlIniRepair.h"

namespace guardian {
namespace {

constexpr int kMaxAttempts = 3;  // Of one write.
constexpr std::int64_t kReopenDelayMs = 1'000;
// A repair that fails may have taken minutes, with others waiting for it.
constexpr std::int64_t kRepairDelayMs = 60'000;
// A look at the file's name costs a read a tenth of its time.
constexpr std::int64_t kMovedCheckMs = 50;
constexpr std::int64_t kBackupCheckMs = 3'600'000;

// For the exception that is being handled.
[[noreturn]] void ThrowUnopenable(const TSqlIniPaths& files) {
  const std::string reason = CurrentExceptionMessage();
  if (!files.StoreIsReadable()) {
    throw KZException("Cannot open" + files.Store() + ": Permission Denied");
  }
  throw KZException(files.Store() + ": This file cannot be opened. " + reason);
}

}  // namespace

bool TKZSQLIniFile::OpenDatabase() {
  const TSqlIniLock lock(FLock);
  CheckComponentsLocked("OpenDatabase");
  return TryOpenLocked();
}

void TKZSQLIniFile::CloseDatabase() {
  const TSqlIniLock lock(FLock);
  CheckComponentsLocked("CloseDatabase");
  BackUpIfDueLocked();
  DisconnectLocked();
}

void TKZSQLIniFile::DestroyComponents() {
  const TSqlIniLock lock(FLock);
  CheckComponentsLocked("DestroyComponents");
  BackUpIfDueLocked();
  DisconnectLocked();
  FComponents.reset();
}

void TKZSQLIniFile::CreateComponents() {
  const TSqlIniLock lock(FLock);
  if (!FComponents) FComponents = std::make_unique<TComponents>();
}

bool TKZSQLIniFile::AttemptRepair() {
  const TSqlIniLock lock(FLock);
  CheckComponentsLocked("AttemptRepair");
  return RepairLocked();
}

// A connection follows its file, not the name: one that was replaced would be read for ever.
void TKZSQLIniFile::EnsureOpenLocked(TSqlIniBegin kind) {
  const std::int64_t now = FClock.TickCount();
  if (FComponents->Database) {
    if (IsForeignLocked()) throw KZException("The file was opened before a fork.");
    if (kind == TSqlIniBegin::Read && now < FNextMovedCheckTick) return;
    FNextMovedCheckTick = now + kMovedCheckMs;
    if (!FComponents->Database->HasMoved()) return;
    LeaveMovedFileLocked();
  } else if (now < FNextOpenTick) {
    throw KZException(FOpenFailure);
  }
  OpenLocked();
}

void TKZSQLIniFile::OpenLocked() {
  if (IsForeignLocked()) throw KZException("The file was opened before a fork.");
  DisconnectLocked();
  try {
    OpenOrRepairLocked();
  } catch (...) {
    FOpenFailure = CurrentExceptionMessage();
    FNextOpenTick = FClock.TickCount() + kReopenDelayMs;
    throw;
  }
  FNextOpenTick = 0;
}

void TKZSQLIniFile::OpenOrRepairLocked() {
  const std::string cannotOpen = FileName() + ": This file cannot be opened.";
  switch (FFiles.StoreKind()) {
    case TSqlIniFileKind::Missing:
      Log("Config file not found: " + FileName());
      break;
    case TSqlIniFileKind::Other:
      throw KZException(cannotOpen + " It is no regular file.");
    case TSqlIniFileKind::Regular:
    case TSqlIniFileKind::Forbidden:
      if (ConnectLocked()) return;
      break;
  }
  if (FAccess == TSqlIniAccess::ReadOnly || !RepairIfDueLocked() || !ConnectLocked()) {
    throw KZException(cannotOpen);
  }
}

// Returns false for a file that is to be repaired.
bool TKZSQLIniFile::ConnectLocked() {
  try {
    FComponents->Database = std::make_unique<TSqlIniComponents>(FileName(), FAccess);
  } catch (...) {
    const TSqlIniFault fault = CurrentSqlIniFault();
    if (fault != TSqlIniFault::Damaged && fault != TSqlIniFault::Empty) ThrowUnopenable(FFiles);
    LogCurrentException("OpenDatabase");
    return false;
  }
  FOpenedBy = ::getpid();
  FNextBackupTick = FClock.TickCount() + kBackupCheckMs;
  return true;
}

bool TKZSQLIniFile::TryOpenLocked() {
  try {
    OpenLocked();
    return true;
  } catch (...) {
    LogCurrentException("OpenDatabase");
    return false;
  }
}

void TKZSQLIniFile::DisconnectLocked() noexcept {
  if (!FComponents) return;
  if (IsForeignLocked()) {
    // The connection is another process's, whose locks a close would touch.
    [[maybe_unused]] const TSqlIniComponents* abandoned = FComponents->Database.release();
  } else {
    FOpenedBy = 0;
  }
  FComponents->Database.reset();
  FComponents->FSectionList.clear();
}

bool TKZSQLIniFile::IsForeignLocked() const { return FOpenedBy != 0 && FOpenedBy != ::getpid(); }

// In a catch block of a read. A descriptor that has gone stale stays so; a damaged file is left to
// the writes, which repair it.
void TKZSQLIniFile::LeaveFailingFileLocked() {
  if (CurrentSqlIniFault() == TSqlIniFault::Other && !IsForeignLocked()) DisconnectLocked();
}

// Of a file that was deleted, this connection may be the last that can read it.
void TKZSQLIniFile::LeaveMovedFileLocked() {
  if (FFiles.StoreKind() == TSqlIniFileKind::Missing) BackUpLocked();
  DisconnectLocked();
}

bool TKZSQLIniFile::RecoverLocked(const char* operation) {
  ++FAttempts;
  switch (CurrentSqlIniFault()) {
    case TSqlIniFault::ReadOnlyFile:
      DebugOutput("Config file is read-only. Cannot save updated profile status.");
      // The connection would stay read-only when the file no longer is.
      DisconnectLocked();
      return false;
    case TSqlIniFault::Refused:
      LogCurrentException(operation);
      return false;
    case TSqlIniFault::Damaged:
      LogCurrentException(operation);
      return FAttempts < kMaxAttempts && RepairAfterDamageLocked();
    case TSqlIniFault::Empty:
    case TSqlIniFault::Other:
      LogCurrentException(operation);
      return ReopenLocked(operation);
  }
  return false;
}

bool TKZSQLIniFile::ReopenLocked(const char* operation) {
  const std::string notRetrying =
      "NOT retrying the failed operation (" + std::string(operation) + ", " + FileName();
  if (FAttempts >= kMaxAttempts) {
    Log(notRetrying + ") after " + std::to_string(FAttempts) + " attempts.");
    return false;
  }
  if (!TryOpenLocked()) {
    Log(notRetrying + ") due to problems re-opening the database.");
    return false;
  }
  Log("Retrying the failed operation (" + std::string(operation) + ", " + FileName() + ")");
  return true;
}

bool TKZSQLIniFile::RepairAfterDamageLocked() {
  Log("Trying to close and re-open the database.");
  const char* failing = "Exception closing DB around Repair Attempt: ";
  try {
    DisconnectLocked();
    failing = "Exception destroying components around Repair Attempt: ";
    const TSqlIniEdit edit = FComponents->Edit;
    FComponents.reset();
    failing = "Exception creating components around Repair Attempt: ";
    FComponents = std::make_unique<TComponents>();
    FComponents->Edit = edit;
  } catch (const std::exception& error) {
    Log(failing + std::string(error.what()));
    return false;
  }
  return RepairIfDueLocked();
}

bool TKZSQLIniFile::RepairIfDueLocked() {
  if (FClock.TickCount() < FNextRepairTick) return false;
  if (RepairLocked()) return true;
  FNextRepairTick = FClock.TickCount() + kRepairDelayMs;
  return false;
}

bool TKZSQLIniFile::RepairLocked() {
  DisconnectLocked();
  if (FAccess == TSqlIniAccess::ReadOnly) return false;
  try {
    TSqlIniRepair(FFiles, FClock, [this](const std::string& line) { Log(line); }).Run();
    return true;
  } catch (...) {
    LogCurrentException("AttemptRepair");
    return false;
  }
}

void TKZSQLIniFile::BackUpIfDueLocked() {
  FNextBackupTick = FClock.TickCount() + kBackupCheckMs;
  if (FChanged && FFiles.BackupIsDue()) BackUpLocked();
}

void TKZSQLIniFile::BackUpLocked() {
  if (FAccess == TSqlIniAccess::ReadOnly || !FComponents->Database) return;
  if (FOpenedBy != ::getpid()) return;
  try {
    if (TakeSqlIniBackup(*FComponents->Database, FFiles, FClock)) FChanged = false;
  } catch (...) {
    LogCurrentException("BackUp");
  }
}

}  // namespace guardian
