#pragma once

#include <chrono>
#include <memory>
#include <string>

// NOLINTNEXTLINE(readability-identifier-naming): the library's name.
namespace SQLite {
class Database;
}  // namespace SQLite

namespace guardian {

// What a failure means for whoever has to go on.
enum class TSqlIniFault {
  ReadOnlyFile,
  Damaged,  // The file is damaged, or is no database at all.
  Empty,    // The database holds nothing, not even a table.
  Refused,  // What was asked for can never be stored.
  Other,
};

// How long a statement waits for other connections. A write holds the file for milliseconds, so
// that dozens of writers get their turn within it; and a caller that waits for it three times, as
// often as a write is tried, is still heard of within a minute.
inline constexpr std::chrono::milliseconds kSqlIniBusyTimeout{10'000};

// Opens an existing file; its statements wait for other connections. Throws SQLite::Exception.
[[nodiscard]] SQLite::Database OpenSqlIniConnection(const std::string& fileName);

// Makes the tables of a store in a file that is empty. Throws SQLite::Exception.
void CreateSqlIniTables(const std::string& fileName);

// Keeps the writers of all processes away from a file, also from one that is too damaged to be
// opened as a store; one that nobody can write to is let be. Throws SQLite::Exception when another
// connection is writing for all of kSqlIniBusyTimeout.
// Owner: the scope that replaces the file. Threads: not shared.
class TSqlIniWriteBarrier {
 public:
  explicit TSqlIniWriteBarrier(const std::string& fileName);
  ~TSqlIniWriteBarrier();
  TSqlIniWriteBarrier(const TSqlIniWriteBarrier&) = delete;
  TSqlIniWriteBarrier& operator=(const TSqlIniWriteBarrier&) = delete;

 private:
  std::unique_ptr<SQLite::Database> FConnection;
};

// What the exception that is being handled means. Call it in a catch block only.
[[nodiscard]] TSqlIniFault CurrentSqlIniFault() noexcept;

}  // namespace guardian
