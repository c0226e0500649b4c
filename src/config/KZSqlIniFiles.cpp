#include "config/KZSqlIniFiles.h"

#include <algorithm>
#include <utility>

#include "common/AtEnd.h"
#include "common/Console.h"
#include "common/DiagnosticMessage.h"
#include "common/Exceptions.h"
#include "diagnostics/KZCheckpoints.h"

namespace guardian {
namespace {

constexpr std::size_t kMaxBytes = 1'000'000'000;  // What SQLite takes.
constexpr int kMaxAttempts = 3;                   // Of one write.

// Holds the lock of a store for one operation, and passes the checkpoints that show it.
class KZ_SCOPED_CAPABILITY TSqlIniLock {
 public:
  explicit TSqlIniLock(TKZCriticalSection& section) KZ_ACQUIRE(section) : FSection(section) {
    KZCP::Checkpoint("SqlIni.Entering");
    FSection.Enter();
    KZCP::Checkpoint("SqlIni.EnterOK");
  }
  ~TSqlIniLock() KZ_RELEASE() {
    FSection.Leave();
    KZCP::Checkpoint("SqlIni.LeftOK");
  }
  TSqlIniLock(const TSqlIniLock&) = delete;
  TSqlIniLock& operator=(const TSqlIniLock&) = delete;

 private:
  TKZCriticalSection& FSection;
};

// The name as a parameter. SQLite's tool ends a text at a zero byte.
std::string NameOf(std::string_view name) {
  if (name.find('\0') != std::string_view::npos) {
    throw SoftException("A name must not hold a zero byte.");
  }
  if (name.size() > kMaxBytes) throw SoftException("A name is too long.");
  return std::string(name);
}

// What is written to a file that has lost its name may be found by nobody.
void RequireInPlace(const TSqlIniComponents& database) {
  if (database.HasMoved()) throw KZException("The file was replaced meanwhile.");
}

}  // namespace

TKZSQLIniFile::TKZSQLIniFile(const std::string& fileName, TSqlIniAccess access, TClock& clock)
    : FClock(clock), FFile(fileName, access, clock) {
  CreateComponents();
  OpenDatabase();
}

TKZSQLIniFile::~TKZSQLIniFile() {
  const TSqlIniLock lock(FLock);
  try {
    CheckComponentsLocked("Destroy");
    FFile.BackUpIfDue();
  } catch (const std::exception& error) {
    Log(error.what());
  }
}

bool TKZSQLIniFile::OpenDatabase() {
  const TSqlIniLock lock(FLock);
  CheckComponentsLocked("OpenDatabase");
  return FFile.TryOpen();
}

void TKZSQLIniFile::CloseDatabase() {
  const TSqlIniLock lock(FLock);
  CheckComponentsLocked("CloseDatabase");
  FFile.BackUpIfDue();
  FFile.Close();
}

void TKZSQLIniFile::DestroyComponents() {
  const TSqlIniLock lock(FLock);
  CheckComponentsLocked("DestroyComponents");
  FFile.BackUpIfDue();
  FFile.Close();
  FComponents.reset();
}

void TKZSQLIniFile::CreateComponents() {
  const TSqlIniLock lock(FLock);
  if (!FComponents) FComponents = std::make_unique<TComponents>();
}

bool TKZSQLIniFile::AttemptRepair() {
  const TSqlIniLock lock(FLock);
  CheckComponentsLocked("AttemptRepair");
  return FFile.Repair();
}

void TKZSQLIniFile::CheckComponentsLocked(const char* operation) const {
  if (!FComponents) throw KZException(std::string("SQLIni nil in ") + operation);
}

void TKZSQLIniFile::Log(const std::string& line) const { DiagnosticMessage(line, FClock); }

void TKZSQLIniFile::Read(const char* operation, const TStatements& statements) {
  const TSqlIniLock lock(FLock);
  CheckComponentsLocked(operation);
  try {
    ReadLocked(statements);
  } catch (...) {
    FFile.LogCurrentException(operation);
    FFile.CloseAfterFailedRead();
  }
}

void TKZSQLIniFile::ReadLocked(const TStatements& statements) {
  TSqlIniComponents& database = FFile.Connection(TSqlIniBegin::Read);
  const TAtEnd rollback([&database] { database.Rollback(); });
  database.Begin(TSqlIniBegin::Read);
  statements(database);
  database.Commit();
}

bool TKZSQLIniFile::Write(const char* operation, const TStatements& statements) {
  const TSqlIniLock lock(FLock);
  CheckComponentsLocked(operation);
  if (FFile.Access() == TSqlIniAccess::ReadOnly) return false;
  FAttempts = 0;
  while (true) {
    try {
      WriteLocked(statements);
      break;
    } catch (...) {
      if (!RecoverLocked(operation)) return false;
    }
  }
  FFile.NoteWritten();
  return true;
}

void TKZSQLIniFile::WriteLocked(const TStatements& statements) {
  TSqlIniComponents& database = FFile.Connection(TSqlIniBegin::Write);
  const TAtEnd rollback([&database] { database.Rollback(); });
  database.Begin(TSqlIniBegin::Write);
  // While this waited for its turn, a repair may have put another file into the place.
  RequireInPlace(database);
  statements(database);
  CommitLocked();
  // When the file was deleted before the commit, another process may have saved it before that.
  RequireInPlace(database);
}

void TKZSQLIniFile::CommitLocked() {
  TSqlIniComponents* database = FFile.Connected();
  if (database == nullptr || database->AutoCommit()) return;
  try {
    database->Commit();
  } catch (...) {
    FFile.LogCurrentException("CommitNow");
    throw;
  }
  FLastCommitAt = FClock.Now();
}

std::optional<std::int64_t> TKZSQLIniFile::FindSection(TSqlIniComponents& database,
                                                       std::string_view section,
                                                       TSectionCreation creation) const {
  const std::string name = NameOf(section);
  try {
    if (creation == TSectionCreation::No) return database.SectionId(name);
    return database.PutSection(name);
  } catch (...) {
    FFile.LogCurrentException("GetSectionID");
    throw;
  }
}

std::string TKZSQLIniFile::ReadString(std::string_view section, std::string_view key,
                                      std::string_view defaultValue) {
  std::optional<std::string> value;
  Read("ReadString", [&](TSqlIniComponents& database) {
    const auto id = FindSection(database, section, TSectionCreation::No);
    if (id) value = database.Value(*id, NameOf(key));
  });
  return value ? std::move(*value) : std::string(defaultValue);
}

void TKZSQLIniFile::WriteString(std::string_view section, std::string_view key,
                                std::string_view value) {
  [[maybe_unused]] const bool written = TryWriteString(section, key, value);
}

bool TKZSQLIniFile::TryWriteString(std::string_view section, std::string_view key,
                                   std::string_view value) {
  if (FFile.Access() == TSqlIniAccess::ReadWrite) {
    KZCP::Checkpoint(std::string("Ini Write ").append(section).append(" ").append(key));
  }
  const bool written = Write("WriteString", [&](TSqlIniComponents& database) KZ_REQUIRES(FLock) {
    if (value.size() > kMaxBytes) throw SoftException("A value is too long.");
    const std::string name = NameOf(key);
    const auto id = FindSection(database, section, TSectionCreation::IfMissing);
    database.PutValue(id.value(), name, value, FComponents->Edit);
  });
  if (FFile.Access() == TSqlIniAccess::ReadWrite) KZCP::Checkpoint("Ini WriteX");
  return written;
}

std::vector<std::string> TKZSQLIniFile::ReadSection(std::string_view section) {
  std::vector<std::string> keys;
  Read("ReadSection", [&](TSqlIniComponents& database) {
    const auto id = FindSection(database, section, TSectionCreation::No);
    if (id) keys = database.Keys(*id);
  });
  return keys;
}

std::vector<std::string> TKZSQLIniFile::ReadSections() {
  std::vector<std::string> names;
  Read("ReadSections", [&](TSqlIniComponents& database) {
    for (const TSqlIniSection& section : database.Sections()) names.push_back(section.Name);
  });
  return names;
}

std::vector<std::string> TKZSQLIniFile::ReadSectionValues(std::string_view section) {
  std::vector<std::string> lines;
  Read("ReadSectionValues", [&](TSqlIniComponents& database) {
    const auto id = FindSection(database, section, TSectionCreation::No);
    if (id) lines = database.KeysAndValues(*id);
  });
  return lines;
}

bool TKZSQLIniFile::ValueExists(std::string_view section, std::string_view key) {
  bool exists = false;
  Read("ValueExists", [&](TSqlIniComponents& database) {
    const auto id = FindSection(database, section, TSectionCreation::No);
    exists = id && database.Value(*id, NameOf(key));
  });
  return exists;
}

void TKZSQLIniFile::DeleteKey(std::string_view section, std::string_view key) {
  Write("DeleteKey", [&](TSqlIniComponents& database) {
    const std::string name = NameOf(key);
    const auto id = FindSection(database, section, TSectionCreation::No);
    if (id) database.DeleteKey(*id, name);
  });
}

// The section's own row stays, and with it its number.
void TKZSQLIniFile::EraseSection(std::string_view section) {
  Write("EraseSection", [&](TSqlIniComponents& database) {
    const auto id = FindSection(database, section, TSectionCreation::No);
    if (id) database.EraseSection(*id);
  });
}

void TKZSQLIniFile::UpdateFile() {
  const TSqlIniLock lock(FLock);
  CheckComponentsLocked("UpdateFile");
  try {
    CommitLocked();
  } catch (...) {
    return;  // CommitLocked has said so.
  }
  FFile.BackUpIfDue();
}

void TKZSQLIniFile::CommitNow() {
  const TSqlIniLock lock(FLock);
  CheckComponentsLocked("CommitNow");
  try {
    CommitLocked();
  } catch (...) {
    return;  // CommitLocked has said so.
  }
}

std::int64_t TKZSQLIniFile::CountKeys(std::string_view section) {
  std::int64_t count = 0;
  Read("CountKeys", [&](TSqlIniComponents& database) {
    const auto id = FindSection(database, section, TSectionCreation::No);
    if (id) count = database.CountKeys(id);
  });
  return count;
}

std::int64_t TKZSQLIniFile::CountKeys() {
  std::int64_t count = 0;
  Read("CountKeys", [&](TSqlIniComponents& database) { count = database.CountKeys(std::nullopt); });
  return count;
}

std::optional<std::int64_t> TKZSQLIniFile::GetSectionID(std::string_view section,
                                                        TSectionCreation creation) {
  std::optional<std::int64_t> id;
  const TStatements find = [&](TSqlIniComponents& database) {
    id = FindSection(database, section, creation);
  };
  if (creation == TSectionCreation::No) {
    Read("GetSectionID", find);
  } else if (!Write("GetSectionID", find)) {
    id.reset();
  }
  return id;
}

std::optional<std::string> TKZSQLIniFile::GetSectionName(std::int64_t id) {
  std::optional<std::string> name;
  Read("GetSectionName", [&](TSqlIniComponents& database) { name = database.SectionName(id); });
  return name;
}

void TKZSQLIniFile::ForceEdit(TSqlIniEdit edit) {
  const TSqlIniLock lock(FLock);
  CheckComponentsLocked("ForceEdit");
  FComponents->Edit = edit;
}

bool TKZSQLIniFile::RecoverLocked(const char* operation) {
  ++FAttempts;
  switch (CurrentSqlIniFault()) {
    case TSqlIniFault::ReadOnlyFile:
      DebugOutput("Config file is read-only. Cannot save updated profile status.");
      // The connection would stay read-only when the file no longer is.
      FFile.Close();
      return false;
    case TSqlIniFault::Refused:
      FFile.LogCurrentException(operation);
      return false;
    case TSqlIniFault::Damaged:
      FFile.LogCurrentException(operation);
      return FAttempts < kMaxAttempts && RepairAfterDamageLocked();
    case TSqlIniFault::Empty:
    case TSqlIniFault::NoStore:
    case TSqlIniFault::Other:
      FFile.LogCurrentException(operation);
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
  if (!FFile.TryOpen()) {
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
    FFile.Close();
    failing = "Exception destroying components around Repair Attempt: ";
    const TComponents kept = *FComponents;
    FComponents.reset();
    failing = "Exception creating components around Repair Attempt: ";
    FComponents = std::make_unique<TComponents>(kept);
  } catch (const std::exception& error) {
    Log(failing + std::string(error.what()));
    return false;
  }
  return FFile.RepairIfDue();
}

}  // namespace guardian
