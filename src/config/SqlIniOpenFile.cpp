#include "config/SqlIniOpenFile.h"

#include <unistd.h>

#include <exception>
#include <utility>

#include "common/DiagnosticMessage.h"
#include "common/Exceptions.h"
#include "common/Texts.h"
#include "config/SqlIniRepair.h"

namespace guardian {
namespace {

constexpr std::int64_t kReopenDelayMs = 1'000;
// A repair that fails may have taken minutes, with others waiting for it.
constexpr std::int64_t kRepairDelayMs = 60'000;
// A look at the file's name costs a read a tenth of its time.
constexpr std::int64_t kMovedCheckMs = 50;
constexpr std::int64_t kBackupCheckMs = 3'600'000;

// For the exception that is being handled.
[[noreturn]] void ThrowUnopenable(const TSqlIniPaths& paths) {
  const std::string reason = CurrentExceptionMessage();
  if (!paths.StoreIsReadable()) {
    throw KZException("Cannot open" + paths.Store() + ": Permission Denied");
  }
  throw KZException(paths.Store() + ": This file cannot be opened. " + reason);
}

}  // namespace

TSqlIniOpenFile::TSqlIniOpenFile(const std::string& fileName, TSqlIniAccess access, TClock& clock)
    : FPaths(fileName), FAccess(access), FClock(clock) {}

TSqlIniOpenFile::~TSqlIniOpenFile() { Close(); }

// A connection follows its file, not the name: without the look at the name, a file that was
// replaced would be read for ever.
TSqlIniComponents& TSqlIniOpenFile::Connection(TSqlIniBegin kind) {
  const std::int64_t now = FClock.TickCount();
  if (FConnection) {
    if (IsForeign()) throw KZException("The file was opened before a fork.");
    if (kind == TSqlIniBegin::Read && now < FNextMovedCheckTick) return *FConnection;
    FNextMovedCheckTick = now + kMovedCheckMs;
    if (!FConnection->HasMoved()) return *FConnection;
  } else if (now < FNextOpenTick) {
    throw KZException(FOpenFailure);
  }
  Open();
  return *FConnection;
}

void TSqlIniOpenFile::Open() {
  if (IsForeign()) throw KZException("The file was opened before a fork.");
  Close();
  try {
    OpenOrRepair();
  } catch (...) {
    FOpenFailure = CurrentExceptionMessage();
    FNextOpenTick = FClock.TickCount() + kReopenDelayMs;
    throw;
  }
  FNextOpenTick = 0;
}

void TSqlIniOpenFile::OpenOrRepair() {
  const std::string cannotOpen = Name() + ": This file cannot be opened.";
  switch (FPaths.StoreKind()) {
    case TSqlIniFileKind::Missing:
      DiagnosticMessage("Config file not found: " + Name(), FClock);
      break;
    case TSqlIniFileKind::Other:
      throw KZException(cannotOpen + " It is no regular file.");
    case TSqlIniFileKind::Regular:
    case TSqlIniFileKind::Forbidden:
      if (Connect()) return;
      break;
  }
  if (FAccess == TSqlIniAccess::ReadOnly || !RepairIfDue() || !Connect()) {
    throw KZException(cannotOpen);
  }
}

// Returns false for a file that needs a repair.
bool TSqlIniOpenFile::Connect() {
  try {
    FConnection = std::make_unique<TSqlIniComponents>(Name(), FAccess, FClock);
  } catch (...) {
    const TSqlIniFault fault = CurrentSqlIniFault();
    const bool wasStore = fault == TSqlIniFault::NoStore && !FPaths.Copies().empty();
    if (fault != TSqlIniFault::Damaged && fault != TSqlIniFault::Empty && !wasStore) {
      ThrowUnopenable(FPaths);
    }
    LogCurrentException("OpenDatabase");
    return false;
  }
  FOpenedBy = ::getpid();
  FOwnership = TSqlIniPaths::OwnershipOf(Name());
  FNextBackupTick = FClock.TickCount() + kBackupCheckMs;
  return true;
}

bool TSqlIniOpenFile::TryOpen() {
  try {
    Open();
    return true;
  } catch (...) {
    LogCurrentException("OpenDatabase");
    return false;
  }
}

void TSqlIniOpenFile::Close() noexcept {
  if (IsForeign()) {
    [[maybe_unused]] const TSqlIniComponents* abandoned = FConnection.release();
    return;
  }
  if (FConnection && FConnection->HasMoved() && FPaths.StoreKind() == TSqlIniFileKind::Missing) {
    TryBackUp(kSqlIniBusyTimeout);
  }
  FConnection.reset();
  FOpenedBy = 0;
}

void TSqlIniOpenFile::CloseAfterFailedRead() {
  const TSqlIniFault fault = CurrentSqlIniFault();
  if (fault == TSqlIniFault::Other || fault == TSqlIniFault::NoStore) Close();
}

bool TSqlIniOpenFile::IsForeign() const { return FOpenedBy != 0 && FOpenedBy != ::getpid(); }

bool TSqlIniOpenFile::Repair() {
  Close();
  if (FAccess == TSqlIniAccess::ReadOnly) return false;
  try {
    TSqlIniRepair(FPaths, FClock).Run();
    return true;
  } catch (...) {
    LogCurrentException("AttemptRepair");
    return false;
  }
}

bool TSqlIniOpenFile::RepairIfDue() {
  if (FClock.TickCount() < FNextRepairTick) return false;
  if (Repair()) return true;
  FNextRepairTick = FClock.TickCount() + kRepairDelayMs;
  return false;
}

void TSqlIniOpenFile::NoteWritten() {
  FChanged = true;
  if (FClock.TickCount() >= FNextBackupTick) BackUpIfDue();
}

void TSqlIniOpenFile::BackUpIfDue() {
  FNextBackupTick = FClock.TickCount() + kBackupCheckMs;
  if (FChanged && FPaths.BackupIsDue() && TryBackUp(std::chrono::milliseconds(0))) FChanged = false;
}

bool TSqlIniOpenFile::TryBackUp(std::chrono::milliseconds wait) noexcept {
  if (FAccess == TSqlIniAccess::ReadOnly || !FConnection || IsForeign()) return false;
  try {
    if (const auto ownership = TSqlIniPaths::OwnershipOf(Name())) FOwnership = ownership;
    return TakeSqlIniBackup(*FConnection, FPaths, FClock, FOwnership, wait);
  } catch (...) {
    LogCurrentException("BackUp");
    return false;
  }
}

void TSqlIniOpenFile::LogCurrentException(const char* operation) const {
  std::string message = CurrentExceptionMessage();
  if (!Contains(message, Name())) message += " (" + Name() + ")";
  DiagnosticMessage(std::string("TKZSQLIniFile.") + operation + " Exception: " + message, FClock);
}

}  // namespace guardian
