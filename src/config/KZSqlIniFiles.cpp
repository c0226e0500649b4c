#include "config/KZSqlIniFiles.h"

#include <algorithm>
#include <utility>

#include "common/Console.h"
#include "common/ErrorLog.h"
#include "common/Exceptions.h"
#include "config/SqlIniLock.h"
#include "diagnostics/KZCheckpoints.h"

namespace guardian {
namespace {

constexpr std::size_t kMaxBytes = 1'000'000'000;  // What SQLite takes.

// Takes back what a failed operation began.
class TRollbackAtEnd {
 public:
  explicit TRollbackAtEnd(TSqlIniComponents& database) : FDatabase(database) {}
  ~TRollbackAtEnd() { FDatabase.Rollback(); }
  TRollbackAtEnd(const TRollbackAtEnd&) = delete;
  TRollbackAtEnd& operator=(const TRollbackAtEnd&) = delete;

 private:
  TSqlIniComponents& FDatabase;
};

// The name as a parameter. SQLite's tool ends a text at a zero byte.
std::string NameOf(std::string_view name) {
  if (name.find('\0') != std::string_view::npos) {
    throw SoftException("A name must not hold a zero byte.");
  }
  if (name.size() > kMaxBytes) throw SoftException("A name is too long.");
  return std::string(name);
}

}  // namespace

TKZSQLIniFile::TKZSQLIniFile(const std::string& fileName, TSqlIniAccess access, TClock& clock)
    : FFiles(fileName), FAccess(access), FClock(clock) {
  CreateComponents();
  OpenDatabase();
}

TKZSQLIniFile::~TKZSQLIniFile() {
  const TSqlIniLock lock(FLock);
  try {
    CheckComponentsLocked("Destroy");
    BackUpIfDueLocked();
  } catch (const std::exception& error) {
    Log(error.what());
    return;
  }
  DisconnectLocked();
}

void TKZSQLIniFile::CheckComponentsLocked(const char* operation) const {
  if (!FComponents) throw KZException(std::string("SQLIni nil in ") + operation);
}

void TKZSQLIniFile::Log(const std::string& line) const {
  if (!ErrorLog().Enabled()) return DebugOutput(line);
  ErrorLog().WriteLine(DateTimeToStr(FClock.Now()).append(" ").append(line));
}

// SQLite's messages do not name the file.
void TKZSQLIniFile::LogCurrentException(const char* operation) const {
  std::string message = CurrentExceptionMessage();
  if (message.find(FileName()) == std::string::npos) message += " (" + FileName() + ")";
  Log(std::string("TKZSQLIniFile.") + operation + " Exception: " + message);
}

void TKZSQLIniFile::Read(const char* operation, const TStatements& statements) {
  const TSqlIniLock lock(FLock);
  CheckComponentsLocked(operation);
  try {
    ReadLocked(statements);
  } catch (...) {
    LogCurrentException(operation);
    LeaveFailingFileLocked();
  }
}

void TKZSQLIniFile::ReadLocked(const TStatements& statements) {
  EnsureOpenLocked(TSqlIniBegin::Read);
  TSqlIniComponents& database = *FComponents->Database;
  const TRollbackAtEnd rollback(database);
  database.Begin(TSqlIniBegin::Read);
  statements(*FComponents);
  database.Commit();
}

bool TKZSQLIniFile::Write(const char* operation, const TStatements& statements) {
  const TSqlIniLock lock(FLock);
  CheckComponentsLocked(operation);
  if (FAccess == TSqlIniAccess::ReadOnly) return false;
  FAttempts = 0;
  while (true) {
    try {
      WriteLocked(statements);
      break;
    } catch (...) {
      if (!RecoverLocked(operation)) return false;
    }
  }
  FChanged = true;
  if (FClock.TickCount() >= FNextBackupTick) BackUpIfDueLocked();
  return true;
}

void TKZSQLIniFile::WriteLocked(const TStatements& statements) {
  EnsureOpenLocked(TSqlIniBegin::Write);
  TSqlIniComponents& database = *FComponents->Database;
  const TRollbackAtEnd rollback(database);
  database.Begin(TSqlIniBegin::Write);
  // While this waited for its turn, a repair may have put another file into the place.
  if (database.HasMoved()) throw KZException("The file was replaced meanwhile.");
  FComponents->FSectionList.clear();
  statements(*FComponents);
  CommitLocked();
}

void TKZSQLIniFile::CommitLocked() {
  TSqlIniComponents* database = FComponents->Database.get();
  if (database == nullptr || database->AutoCommit()) return;
  try {
    database->Commit();
  } catch (...) {
    LogCurrentException("CommitNow");
    throw;
  }
  FLastCommitAt = FClock.Now();
}

std::optional<std::int64_t> TKZSQLIniFile::FindSection(TComponents& components,
                                                       std::string_view section,
                                                       TSectionCreation creation) const {
  const std::string name = NameOf(section);
  try {
    const auto id = components.Database->SectionId(name);
    if (id || creation == TSectionCreation::No) return id;
    return components.Database->InsertSection(name);
  } catch (...) {
    LogCurrentException("GetSectionID");
    throw;
  }
}

std::string TKZSQLIniFile::ReadString(std::string_view section, std::string_view key,
                                      std::string_view defaultValue) {
  std::optional<std::string> value;
  Read("ReadString", [&](TComponents& components) {
    const auto id = FindSection(components, section, TSectionCreation::No);
    if (id) value = components.Database->Value(*id, NameOf(key));
  });
  return value ? std::move(*value) : std::string(defaultValue);
}

void TKZSQLIniFile::WriteString(std::string_view section, std::string_view key,
                                std::string_view value) {
  [[maybe_unused]] const bool written = TryWriteString(section, key, value);
}

bool TKZSQLIniFile::TryWriteString(std::string_view section, std::string_view key,
                                   std::string_view value) {
  if (FAccess == TSqlIniAccess::ReadWrite) {
    KZCP::Checkpoint(std::string("Ini Write ").append(section).append(" ").append(key));
  }
  const bool written = Write("WriteString", [&](TComponents& components) {
    if (value.size() > kMaxBytes) throw SoftException("A value is too long.");
    const std::string name = NameOf(key);
    const auto id = FindSection(components, section, TSectionCreation::IfMissing);
    components.Database->PutValue(id.value(), name, value, components.Edit);
  });
  if (FAccess == TSqlIniAccess::ReadWrite) KZCP::Checkpoint("Ini WriteX");
  return written;
}

std::vector<std::string> TKZSQLIniFile::ReadSection(std::string_view section) {
  std::vector<std::string> keys;
  Read("ReadSection", [&](TComponents& components) {
    const auto id = FindSection(components, section, TSectionCreation::No);
    if (id) keys = components.Database->Keys(*id);
  });
  return keys;
}

std::vector<std::string> TKZSQLIniFile::ReadSections() {
  std::vector<std::string> names;
  Read("ReadSections", [&](TComponents& components) {
    for (const TSqlIniSection& section : components.Sections()) names.push_back(section.Name);
  });
  return names;
}

std::vector<std::string> TKZSQLIniFile::ReadSectionValues(std::string_view section) {
  std::vector<std::string> lines;
  Read("ReadSectionValues", [&](TComponents& components) {
    const auto id = FindSection(components, section, TSectionCreation::No);
    if (id) lines = components.Database->KeysAndValues(*id);
  });
  return lines;
}

bool TKZSQLIniFile::ValueExists(std::string_view section, std::string_view key) {
  bool exists = false;
  Read("ValueExists", [&](TComponents& components) {
    const auto id = FindSection(components, section, TSectionCreation::No);
    exists = id && components.Database->Value(*id, NameOf(key));
  });
  return exists;
}

void TKZSQLIniFile::DeleteKey(std::string_view section, std::string_view key) {
  Write("DeleteKey", [&](TComponents& components) {
    const std::string name = NameOf(key);
    const auto id = FindSection(components, section, TSectionCreation::No);
    if (id) components.Database->DeleteKey(*id, name);
  });
}

// The section's own row stays, and with it its number.
void TKZSQLIniFile::EraseSection(std::string_view section) {
  Write("EraseSection", [&](TComponents& components) {
    const auto id = FindSection(components, section, TSectionCreation::No);
    if (id) components.Database->EraseSection(*id);
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
  BackUpIfDueLocked();
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
  Read("CountKeys", [&](TComponents& components) {
    const auto id = FindSection(components, section, TSectionCreation::No);
    if (id) count = components.Database->CountKeys(id);
  });
  return count;
}

std::int64_t TKZSQLIniFile::CountKeys() {
  std::int64_t count = 0;
  Read("CountKeys",
       [&](TComponents& components) { count = components.Database->CountKeys(std::nullopt); });
  return count;
}

std::optional<std::int64_t> TKZSQLIniFile::GetSectionID(std::string_view section,
                                                        TSectionCreation creation) {
  std::optional<std::int64_t> id;
  const TStatements find = [&](TComponents& components) {
    id = FindSection(components, section, creation);
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
  Read("GetSectionName",
       [&](TComponents& components) { name = components.Database->SectionName(id); });
  return name;
}

void TKZSQLIniFile::ForceEdit(TSqlIniEdit edit) {
  const TSqlIniLock lock(FLock);
  CheckComponentsLocked("ForceEdit");
  FComponents->Edit = edit;
}

const std::vector<TSqlIniSection>& TKZSQLIniFile::TComponents::Sections() {
  const std::int64_t version = Database->DataVersion();
  if (FSectionList.empty() || version != SectionListVersion) {
    FSectionList = Database->Sections();
    SectionListVersion = version;
  }
  return FSectionList;
}

}  // namespace guardian
