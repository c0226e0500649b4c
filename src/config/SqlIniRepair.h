#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "common/Clock.h"
#include "config/SqlIniPaths.h"

// NOLINTNEXTLINE(readability-identifier-naming): the library's name.
namespace SQLite {
class Database;
}  // namespace SQLite

namespace guardian {

class TSqlIniComponents;

// Puts a whole store in the place of one that is damaged, empty or missing. The new database is
// built in a file of its own from these sources, an earlier one winning over a later one:
//   1. what the damaged file still answers, row by row and look-up by look-up (TSqlIniRemains);
//   2. what SQLite's command-line tool can still read of it, if the tool is there;
//   3. the newest good copy;
//   4. nothing, but then only with the tool.
// It is checked with SQLite's own integrity check, and moved into place by one rename while nobody
// can write. So a store never has less than before; a key that was deleted since the copy was made
// may come back. The damaged file is kept as "-previous". Without space or without permission,
// everything stays as it is. So does a database whose tables are not those of a store, unless it
// has a good backup: then it was a store once.
// Owner: the store.
// Threads: not shared.
// Lifetime: the paths and the clock outlive it.
class TSqlIniRepair {
 public:
  TSqlIniRepair(const TSqlIniPaths& files, TClock& clock);

  // Does nothing for a store that is whole, as after a repair by another process. Blocks while the
  // dump is made, at most five minutes, and before that as long for the repair of another process.
  // Throws what went wrong; the store is then what it was before.
  void Run();

 private:
  enum class TState { Good, Missing, Empty, Damaged, NoStore };

  [[nodiscard]] TState Examine() const;
  void Replace(TState state) const;
  // `damaged` is null for a file that is missing or empty, and `copy` empty where there is none.
  void BuildReplacement(SQLite::Database* damaged, const std::string& copy);
  void TakeRemains(SQLite::Database& damaged, TSqlIniComponents& target,
                   const std::string& copy) const;
  [[nodiscard]] std::string FindGoodCopy() const;
  // Returns false, having said so, when the tool is not there.
  [[nodiscard]] bool WriteDump() const;
  void ImportDump(TSqlIniComponents& target) const;
  void Log(const std::string& line) const;

  const TSqlIniPaths& FFiles;
  TClock& FClock;
};

// Makes the connection's database the newest backup, provided that its copy is whole; otherwise
// the older backups stay as they are. Returns false, having done nothing, when another process
// replaces the file or its backups and has not ended within the wait. Throws what went wrong.
// Blocks for as long as copying takes besides.
bool TakeSqlIniBackup(TSqlIniComponents& store, const TSqlIniPaths& files, TClock& clock,
                      const std::optional<TSqlIniOwnership>& ownership,
                      std::chrono::milliseconds wait);

}  // namespace guardian
