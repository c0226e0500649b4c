#include "config/SqlIniRepair.h"

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>

#include <cerrno>
#include <cstdint>
#include <fstream>
#include <optional>
#include <string_view>
#include <utility>

#include "common/DiagnosticMessage.h"
#include "common/Exceptions.h"
#include "common/Texts.h"
#include "config/SqlIniComponents.h"
#include "config/SqlIniRemains.h"
#include "guardian/process.h"

namespace guardian {
namespace {

// One script: it is run as a whole.
// NOLINTNEXTLINE(readability-identifier-naming): the name the script is known by.
constexpr const char* IB_CreateScript =
    R"(/* No need to set the SQL dialect, always use the latest or default one */
/* CREATE DB GOES HERE */
CREATE TABLE DBVersion
(
   VersionNumber INTEGER
);
insert into DBVersion values(0101);
/* ---------------------------------------------------------------------------- */
/* Main Table SECTIONS */
CREATE TABLE SECTIONS
(
  SECTIONNAME VARCHAR(100) NOT NULL,
  ID INTEGER PRIMARY KEY,
  UNIQUE (SECTIONNAME)
);
/* ---------------------------------------------------------------------------- */
/* Table DATA */
CREATE TABLE DATA
(
  NAME VARCHAR(200) NOT NULL,
  VALUE VARCHAR(100),
  BINVALUE BLOB,
  ID INTEGER PRIMARY KEY,
  SECTIONID INTEGER NOT NULL,
  UNIQUE (NAME,SECTIONID),
  FOREIGN KEY (SECTIONID) REFERENCES SECTIONS(ID) ON UPDATE CASCADE ON DELETE CASCADE
);
)";

constexpr int kDumpTimeoutSec = 300;
constexpr std::size_t kShownErrorBytes = 1000;  // Of what the tool had to say.
// Longer than a repair by another process takes.
constexpr std::chrono::seconds kRepairWait{kDumpTimeoutSec + 10};
// The shell's exit codes for a tool that is not there, and that may not be run.
constexpr int kToolNotRunnable = 126;
constexpr int kToolNotFound = 127;

// One word for the shell, whatever is in it.
std::string ShellWord(const std::string& text) {
  return "'" + ReplaceAll(text, "'", "'\\''") + "'";
}

bool IsStoreRow(std::string_view line) {
  for (const std::string_view table : {"DATA", "SECTIONS", "\"DATA\"", "\"SECTIONS\""}) {
    const std::string start = "INSERT INTO " + std::string(table) + " VALUES(";
    if (line.substr(0, start.size()) == start) return true;
  }
  return false;
}

// Throws for a line that tells of another error than damage. The tool goes on after any error, and
// a dump that lacks what could not be read just then would lose it.
void RequireDamage(std::string_view line) {
  constexpr std::string_view kError = "/**** ERROR: (";
  if (line.substr(0, kError.size()) != kError) return;
  const std::string_view code = line.substr(kError.size(), 3);
  if (code == "11)" || code == "26)") return;  // SQLITE_CORRUPT and SQLITE_NOTADB.
  if (line.find("unsupported file format") != std::string_view::npos) return;
  throw KZException("The dump failed: " + std::string(line));
}

// Removes a file when the scope ends, however it ends.
class TRemoveAtEnd {
 public:
  explicit TRemoveAtEnd(std::string name) : FName(std::move(name)) {}
  ~TRemoveAtEnd() {
    if (FName.empty()) return;
    // Whoever makes the file again removes what is left of it now.
    Guarded("TRemoveAtEnd", SystemClock(), [this] { TSqlIniPaths::Remove(FName); });
  }
  TRemoveAtEnd(const TRemoveAtEnd&) = delete;
  TRemoveAtEnd& operator=(const TRemoveAtEnd&) = delete;

  void Keep() { FName.clear(); }

 private:
  std::string FName;
};

// Makes the tables of a store in an empty file.
void CreateTables(const std::string& fileName, TClock& clock) {
  SQLite::Database connection = OpenSqlIniConnection(fileName, clock);
  connection.exec("PRAGMA page_size=2048;");
  connection.exec("BEGIN IMMEDIATE;");
  connection.exec(IB_CreateScript);
  connection.exec("COMMIT;");
}

// A connection that keeps the writers of all processes away for as long as it lives, also from a
// file that is too damaged to be opened as a store. Throws SQLite::Exception when another
// connection is writing for all of kSqlIniBusyTimeout.
SQLite::Database KeepWritersAway(const std::string& fileName, TClock& clock) {
  SQLite::Database connection = OpenSqlIniConnection(fileName, clock);
  try {
    connection.exec("BEGIN IMMEDIATE");
  } catch (const SQLite::Exception&) {
    // No connection can begin to write to a file that is damaged at its head. Its permissions are
    // no reason: they were looked at before.
    const TSqlIniFault fault = CurrentSqlIniFault();
    if (fault == TSqlIniFault::Other || fault == TSqlIniFault::Refused) throw;
  }
  return connection;
}

bool HoldsKeys(const std::string& copy) {
  return IsGoodStore(copy) &&
         TSqlIniComponents(copy, TSqlIniAccess::ReadOnly).CountKeys(std::nullopt) > 0;
}

}  // namespace

TSqlIniRepair::TSqlIniRepair(const TSqlIniPaths& files, TClock& clock)
    : FFiles(files), FClock(clock) {}

void TSqlIniRepair::Log(const std::string& line) const { DiagnosticMessage(line, FClock); }

void TSqlIniRepair::Run() {
  FFiles.MakeBackupFolder();
  const auto replacing = TSqlIniReplacing::Begin(FFiles, FClock, kRepairWait);
  if (!replacing) throw KZException("Another process has been replacing the file for too long.");
  const TState state = Examine();
  if (state == TState::Good) return;
  std::optional<SQLite::Database> barrier;
  if (state != TState::Missing) {
    if (!FFiles.StoreIsWritable()) {
      throw KZException(FFiles.Store() + ": A file that may not be written is not repaired.");
    }
    barrier.emplace(KeepWritersAway(FFiles.Store(), FClock));
    // Somebody may have filled or mended it before the barrier stood.
    if (IsGoodStore(FFiles.Store())) return;
    // A replacement that is left over is older than what the damaged store will give.
    TSqlIniPaths::Remove(FFiles.Replacement());
  }
  const std::string copy = FindGoodCopy();
  // A file of which there is a backup was a store once.
  if (state == TState::NoStore && copy.empty()) {
    throw KZException(FFiles.Store() + ": It is no settings store, and has no good backup.");
  }
  const bool isDamaged = state == TState::Damaged || state == TState::NoStore;
  // The replacement is the copy when a repair was cut off between two renames.
  if (copy != FFiles.Replacement()) BuildReplacement(isDamaged ? &*barrier : nullptr, copy);
  Replace(state);
  if (!copy.empty()) Log("Opening good DB that we found: " + FFiles.Store());
}

void TSqlIniRepair::Replace(TState state) const {
  if (state == TState::Empty) {
    FFiles.ReplaceEmpty();
    return;
  }
  FFiles.ReplaceDamaged();
  if (state != TState::Missing) Log("The damaged file is kept as " + FFiles.Previous());
}

TSqlIniRepair::TState TSqlIniRepair::Examine() const {
  if (FFiles.StoreKind() == TSqlIniFileKind::Missing) return TState::Missing;
  try {
    TSqlIniComponents(FFiles.Store(), TSqlIniAccess::ReadWrite).CheckIntegrity();
    return TState::Good;
  } catch (...) {
    const TSqlIniFault fault = CurrentSqlIniFault();
    if (fault == TSqlIniFault::Empty) return TState::Empty;
    if (fault == TSqlIniFault::Damaged) return TState::Damaged;
    if (fault == TSqlIniFault::NoStore) return TState::NoStore;
    throw;
  }
}

std::string TSqlIniRepair::FindGoodCopy() const {
  for (const std::string& copy : FFiles.Copies()) {
    if (!HoldsKeys(copy)) continue;
    Log("Found good backup file: " + copy);
    return copy;
  }
  Log("No Backup DB Found");
  return {};
}

void TSqlIniRepair::BuildReplacement(SQLite::Database* damaged, const std::string& copy) {
  const TRemoveAtEnd dump(FFiles.Dump());
  const bool hasDump = damaged != nullptr && WriteDump();
  if (damaged == nullptr && copy.empty()) Log(FFiles.Store() + ": creating new SQL file");
  TRemoveAtEnd replacement(FFiles.Replacement());
  const auto ownership = TSqlIniPaths::OwnershipOf(FFiles.Store());
  FFiles.MakeEmptyFile(FFiles.Replacement(),
                       ownership ? ownership : TSqlIniPaths::OwnershipOf(copy));
  CreateTables(FFiles.Replacement(), FClock);
  TSqlIniComponents target(FFiles.Replacement(), TSqlIniAccess::ReadWrite);
  if (!copy.empty()) target.Attach(copy);
  // One transaction: a replacement that holds anything holds everything.
  target.Begin(TSqlIniBegin::Read);
  if (hasDump) ImportDump(target);
  if (damaged != nullptr) {
    TakeRemains(*damaged, target, copy);
  } else if (!copy.empty()) {
    target.FillFromAttached();
  }
  if (damaged != nullptr && !hasDump && target.CountKeys(std::nullopt) == 0) {
    throw KZException("Without a dump nothing was found for a new file.");
  }
  target.Commit();
  target.CheckIntegrity();
  replacement.Keep();
}

void TSqlIniRepair::TakeRemains(SQLite::Database& damaged, TSqlIniComponents& target,
                                const std::string& copy) const {
  TSqlIniRemains remains(damaged);
  remains.TakeRows(target);
  if (!copy.empty()) target.FillFromAttached();
  target.NameLostSections();
  remains.TakeAnswers(target);
  Log(FFiles.Store() + ": " + std::to_string(remains.Taken()) + " values were read one by one");
}

// The database is named by a path that begins with "/", which the tool takes for no option.
bool TSqlIniRepair::WriteDump() const {
  FFiles.MakeEmptyFile(FFiles.Dump(), TSqlIniPaths::OwnershipOf(FFiles.Store()));
  // In brackets: the runner redirects the end of the line to a file that may not grow without end.
  const std::string command = "(echo .dump | sqlite3 -batch -init /dev/null " +
                              ShellWord(FFiles.Store()) + " >" + ShellWord(FFiles.Dump()) + ")";
  std::string output;
  int exitCode = -1;
  RunShellCmdWithOutput(output, command, kDumpTimeoutSec, true, "", exitCode);
  const std::string failure = "The dump was not made, exit code " + std::to_string(exitCode) +
                              ": " + Clipped(output, kShownErrorBytes);
  if (exitCode == -1) throw KZException(failure);
  // Any other code tells of the damage.
  if (exitCode != kToolNotRunnable && exitCode != kToolNotFound) return true;
  Log(failure);
  return false;
}

// The tool writes each row as one line. Rows that the tables refuse, since they are damaged or come
// twice, are left out. So is everything that makes tables: their constraints may have been others
// ("CONSTRAINT VALUNIQUE_NAMESECID"), and would refuse rows.
void TSqlIniRepair::ImportDump(TSqlIniComponents& target) const {
  std::ifstream dump(FFiles.Dump(), std::ios::binary);
  std::int64_t taken = 0;
  std::int64_t refused = 0;
  std::string line;
  std::string last;
  while (std::getline(dump, line)) {
    if (!line.empty()) last = line;
    RequireDamage(line);
    if (!IsStoreRow(line)) continue;
    ++(target.TryInsertRow(line) ? taken : refused);
  }
  // The tool ends a dump by a line of its own, also when it stops for the damage. Without that line
  // the dump was cut off, as by a full disk.
  if (last != "COMMIT;" && last.rfind("ROLLBACK;", 0) != 0) {
    throw KZException("The dump " + FFiles.Dump() + " is not complete.");
  }
  target.DropUselessRows();
  Log(FFiles.Store() + ": " + std::to_string(taken) + " rows could be read, " +
      std::to_string(refused) + " were unusable");
}

bool TakeSqlIniBackup(TSqlIniComponents& store, const TSqlIniPaths& files, TClock& clock,
                      const std::optional<TSqlIniOwnership>& ownership,
                      std::chrono::milliseconds wait) {
  files.MakeBackupFolder();
  const auto replacing = TSqlIniReplacing::Begin(files, clock, wait);
  if (!replacing) return false;
  const TRemoveAtEnd copy(files.NewBackup());
  files.MakeEmptyFile(files.NewBackup(), ownership);
  store.CopyTo(files.NewBackup());
  TSqlIniComponents(files.NewBackup(), TSqlIniAccess::ReadOnly).CheckIntegrity();
  files.RotateBackups();
  return true;
}

}  // namespace guardian
