#include "config/SqlIniConnection.h"

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>
#include <sqlite3.h>

#include <algorithm>
#include <string>

#include "common/Exceptions.h"
#include "common/Texts.h"

namespace guardian {
namespace {

constexpr int kLongestBusyPause = 5;  // Milliseconds, and so on average 3.
constexpr int kBusyPausesBeforeGivingUp = static_cast<int>(kSqlIniBusyTimeout.count()) / 3;

// SQLite's own handler sleeps for up to 100 ms at a time. When many connections write, the file is
// free for a fraction of a millisecond at a time; a connection that looks rarely never gets it.
int PauseWhileBusy(void* clock, int pauses) {
  if (pauses >= kBusyPausesBeforeGivingUp) return 0;
  static_cast<TClock*>(clock)->Sleep(std::chrono::milliseconds(1 + pauses % kLongestBusyPause));
  return 1;
}

// Judged by the text, as SQLite words it. A file that was replaced by another is refused in the
// same words as a file that must not be written to; only the first is helped by opening it again.
TSqlIniFault FaultOf(const std::string& message, int extendedCode) {
  const int code = extendedCode & 0xFF;
  if (extendedCode == SQLITE_READONLY_DBMOVED) return TSqlIniFault::Other;
  if (Contains(message, "attempt to write a readonly database")) return TSqlIniFault::ReadOnlyFile;
  if (Contains(message, "database disk image is malformed") || code == SQLITE_CORRUPT ||
      code == SQLITE_NOTADB) {
    return TSqlIniFault::Damaged;
  }
  for (const char* text : {"no such ", "Unknown column name", "unsupported file format"}) {
    if (Contains(message, text)) return TSqlIniFault::NoStore;
  }
  if (code == SQLITE_EMPTY) return TSqlIniFault::Empty;
  if (code == SQLITE_TOOBIG) return TSqlIniFault::Refused;
  return TSqlIniFault::Other;
}

}  // namespace

SQLite::Database OpenSqlIniConnection(const std::string& fileName, TClock& clock) {
  SQLite::Database connection(fileName, SQLite::OPEN_READWRITE);
  ::sqlite3_busy_handler(connection.getHandle(), PauseWhileBusy, &clock);
  return connection;
}

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
