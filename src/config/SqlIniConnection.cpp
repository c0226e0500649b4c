#include "config/SqlIniConnection.h"

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>
#include <sqlite3.h>

#include <algorithm>
#include <string_view>

#include "common/Clock.h"
#include "common/Exceptions.h"

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

constexpr int kLongestBusyPause = 5;  // Milliseconds, and so on average 3.
constexpr int kBusyPausesBeforeGivingUp = static_cast<int>(kSqlIniBusyTimeout.count()) / 3;

// SQLite's own handler sleeps for up to 100 ms at a time. Under a throng of writers, whose file is
// free for a fraction of a millisecond at a time, it comes too late for ever; whoever looks often
// gets its turn.
int PauseWhileBusy(void* /*unused*/, int pauses) {
  if (pauses >= kBusyPausesBeforeGivingUp) return 0;
  SystemClock().Sleep(std::chrono::milliseconds(1 + pauses % kLongestBusyPause));
  return 1;
}

bool Contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

// Judged by the text, as SQLite words it. A file that was replaced by another is refused in the
// same words as one that must not be written to; to open it again helps only the first.
TSqlIniFault FaultOf(const std::string& message, int extendedCode) {
  const int code = extendedCode & 0xFF;
  if (extendedCode == SQLITE_READONLY_DBMOVED) return TSqlIniFault::Other;
  if (Contains(message, "attempt to write a readonly database")) return TSqlIniFault::ReadOnlyFile;
  if (Contains(message, "database disk image is malformed") || code == SQLITE_CORRUPT ||
      code == SQLITE_NOTADB) {
    return TSqlIniFault::Damaged;
  }
  if (code == SQLITE_EMPTY) return TSqlIniFault::Empty;
  if (code == SQLITE_TOOBIG) return TSqlIniFault::Refused;
  return TSqlIniFault::Other;
}

}  // namespace

SQLite::Database OpenSqlIniConnection(const std::string& fileName) {
  SQLite::Database connection(fileName, SQLite::OPEN_READWRITE);
  ::sqlite3_busy_handler(connection.getHandle(), PauseWhileBusy, nullptr);
  return connection;
}

void CreateSqlIniTables(const std::string& fileName) {
  SQLite::Database connection = OpenSqlIniConnection(fileName);
  connection.exec("PRAGMA page_size=2048;");
  connection.exec("BEGIN IMMEDIATE;");
  connection.exec(IB_CreateScript);
  connection.exec("COMMIT;");
}

TSqlIniWriteBarrier::TSqlIniWriteBarrier(const std::string& fileName)
    : FConnection(std::make_unique<SQLite::Database>(OpenSqlIniConnection(fileName))) {
  try {
    FConnection->exec("BEGIN IMMEDIATE");
  } catch (const SQLite::Exception&) {
    // No connection can begin to write to a file that is damaged at its head.
    if (CurrentSqlIniFault() != TSqlIniFault::Damaged) throw;
  }
}

TSqlIniWriteBarrier::~TSqlIniWriteBarrier() = default;

TSqlIniFault CurrentSqlIniFault() noexcept {
  try {
    throw;
  } catch (const SQLite::Exception& error) {
    const int code = std::max(error.getExtendedErrorCode(), error.getErrorCode());
    return FaultOf(error.what(), code);
  } catch (const SoftException&) {
    return TSqlIniFault::Refused;
  } catch (...) {
    return TSqlIniFault::Other;
  }
}

}  // namespace guardian
