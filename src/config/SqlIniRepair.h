#pragma once

#include <functional>
#include <string>

#include "common/Clock.h"
#include "config/SqlIniPaths.h"

namespace guardian {

class TSqlIniComponents;

using TSqlIniLog = std::function<void(const std::string& line)>;

// Puts a whole store in the place of one that is damaged, empty or missing. The new database is
// built aside, from these in turn, an earlier one winning over a later one:
//   1. what SQLite's command-line tool can still read of the damaged file;
//   2. the newest good copy;
//   3. nothing.
// It is checked with SQLite's own integrity check, and moved into place by one rename while nobody
// can write. So a store never has less than before, and a key that was deleted since the copy was
// made may come back; the damaged file is kept as "-previous". Without the tool, without space or
// without permission, everything stays as it is.
// Owner: the store. Threads: not shared.
class TSqlIniRepair {
 public:
  TSqlIniRepair(const TSqlIniPaths& files, TClock& clock, TSqlIniLog log);

  // Does nothing for a store that is whole, as when another process was faster. Blocks for as long
  // as the dump takes, at most five minutes, and for as long waiting for another process that
  // repairs. Throws what went wrong; the store is then what it was before.
  void Run();

 private:
  enum class TState { Good, Missing, Empty, Damaged };

  [[nodiscard]] TState Examine() const;
  void BuildReplacement(TState state, const std::string& copy);
  [[nodiscard]] std::string FindGoodCopy();
  void WriteDump() const;
  void ImportDump(TSqlIniComponents& target);

  const TSqlIniPaths& FFiles;
  TClock& FClock;
  const TSqlIniLog FLog;
};

// Makes the connection's database the newest backup, provided that its copy is whole; otherwise
// the older backups stay as they are. Returns false, having done nothing, while another process
// replaces the file or its backups. Throws what went wrong. Blocks for as long as copying takes.
bool TakeSqlIniBackup(TSqlIniComponents& store, const TSqlIniPaths& files, TClock& clock);

}  // namespace guardian
