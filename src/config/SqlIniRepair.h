#pragma once

#include <string>

#include "common/Clock.h"
#include "config/SqlIniPaths.h"

namespace guardian {

class TSqlIniComponents;

// Puts a whole store in the place of one that is damaged, empty or missing. The new database is
// built in a file of its own from these sources, an earlier one winning over a later one:
//   1. what SQLite's command-line tool can still read of the damaged file;
//   2. the newest good copy;
//   3. nothing.
// It is checked with SQLite's own integrity check, and moved into place by one rename while nobody
// can write. So a store never has less than before; a key that was deleted since the copy was made
// may come back. The damaged file is kept as "-previous". Without the tool, without space or
// without permission, everything stays as it is.
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
  enum class TState { Good, Missing, Empty, Damaged };

  [[nodiscard]] TState Examine() const;
  void BuildReplacement(TState state, const std::string& copy);
  [[nodiscard]] std::string FindGoodCopy() const;
  void WriteDump() const;
  void ImportDump(TSqlIniComponents& target) const;
  void Log(const std::string& line) const;

  const TSqlIniPaths& FFiles;
  TClock& FClock;
};

// Makes the connection's database the newest backup, provided that its copy is whole; otherwise
// the older backups stay as they are. Returns false, having done nothing, while another process
// replaces the file or its backups. Throws what went wrong. Blocks for as long as copying takes.
bool TakeSqlIniBackup(TSqlIniComponents& store, const TSqlIniPaths& files, TClock& clock);

}  // namespace guardian
