#pragma once

#include <chrono>
#include <string>

#include "common/Clock.h"

// NOLINTNEXTLINE(readability-identifier-naming): the library's name.
namespace SQLite {
class Database;
}  // namespace SQLite

namespace guardian {

// What a failure means for the code that has to go on.
enum class TSqlIniFault {
  ReadOnlyFile,
  Damaged,  // The file is damaged, or is no database at all.
  NoStore,  // The tables are not those of a store, or their definitions are damaged.
  Empty,    // The database holds nothing, not even a table.
  Refused,  // What was asked for can never be stored.
  Other,
};

// How long a statement waits for other connections. A write holds the file for milliseconds, so
// dozens of writers get their turn within it. A write is tried three times, so its caller gets an
// answer within a minute even when the file stays locked.
inline constexpr std::chrono::milliseconds kSqlIniBusyTimeout{10'000};

// Opens an existing file; its statements wait for other connections, on the clock, which outlives
// the connection. Throws SQLite::Exception.
[[nodiscard]] SQLite::Database OpenSqlIniConnection(const std::string& fileName, TClock& clock);

// What the exception that is being handled means. Call it in a catch block only.
[[nodiscard]] TSqlIniFault CurrentSqlIniFault() noexcept;

}  // namespace guardian
