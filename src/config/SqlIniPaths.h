#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/Clock.h"
#include "common/NamedMutex.h"

namespace guardian {

enum class TSqlIniFileKind {
  Missing,
  Regular,
  Other,      // A folder, a device, a named pipe.
  Forbidden,  // A folder on the way to it may not be entered.
};

// The files of one store, and how one takes the place of another. For the store "<folder>/<name>":
//
//   <folder>/<name>                        the database
//   <folder>/<name>-previous               the damaged file that a repaired one took the place of
//   <folder>/<name>.sqltmp                 the dump of a damaged database while it is repaired
//   <folder>/<name>.sqlnew                 a new database until it is complete
//   <folder>/CfgBackups/<name>.bak         the newest backup; older ones end in .old, .old1, .old2,
//                                          .old3
//   <folder>/CfgBackups/<name>-previous.*  older damaged files, with the same endings
//   <folder>/CfgBackups/emptycfgfile.empty an empty file that was found in a store's place
//   <folder>/CfgBackups/<name>.lock        held by whoever replaces the database or its backups
//
// A database is never opened here, only named, linked and renamed: closing one, as any program does
// after reading it, would take SQLite's locks on it away from the whole process.
// Owner: one store. Threads: immutable after construction.
class TSqlIniPaths {
 public:
  // Follows the symbolic links of the name, so that a link stays one.
  explicit TSqlIniPaths(const std::string& storeName);

  [[nodiscard]] const std::string& Store() const noexcept { return FStore; }
  [[nodiscard]] std::string Dump() const { return FStore + ".sqltmp"; }
  [[nodiscard]] std::string Replacement() const { return FStore + ".sqlnew"; }
  [[nodiscard]] std::string Previous() const { return FStore + "-previous"; }
  [[nodiscard]] std::string NewestBackup() const { return InBackups(".bak"); }
  [[nodiscard]] std::string NewBackup() const { return InBackups(".bak.new"); }
  [[nodiscard]] std::string Mutex() const { return InBackups(""); }  // Its file ends in .lock.

  [[nodiscard]] TSqlIniFileKind StoreKind() const;
  [[nodiscard]] bool StoreIsReadable() const;
  [[nodiscard]] bool StoreIsWritable() const;

  // True when the store changed a day or more after its newest backup was made, or has none.
  [[nodiscard]] bool BackupIsDue() const;

  // The existing files that may hold a copy of the store, newest first.
  [[nodiscard]] std::vector<std::string> Copies() const;

  // Makes the folder of the backups; throws ESystemError.
  void MakeBackupFolder() const;

  // Makes an empty file, over an older one, that the users of the store may use as they may the
  // store, and nobody else. Throws ESystemError.
  void MakeEmptyFile(const std::string& name) const;

  // Removes the file and its journals, if they are there.
  static void Remove(const std::string& name);

  // Makes the new backup the newest one, and each older one the next older.
  void RotateBackups() const;

  // Puts the replacement in the place of the store by one rename. The file that is there, if any,
  // is first given its other name, and so are journals, which would be played back into the
  // replacement. Throws ESystemError; the store is then what it was before or, on a file system
  // without hard links, missing and the replacement among its copies.
  void ReplaceDamaged() const;  // Or a missing one.
  void ReplaceEmpty() const;

 private:
  [[nodiscard]] std::string InBackups(const std::string& ending) const;
  void KeepAs(const std::string& name) const;
  void PutReplacementInPlace() const;

  std::string FStore;
  std::string FBackupFolder;
};

// Held while a store's file or its backups are replaced, by one thread of one process at a time.
// Owner: the scope that replaces. Threads: not shared.
class TSqlIniReplacing {
 public:
  // Waits for whoever replaces now, at most for the given time; nothing when it is still not its
  // turn then. Throws ESystemError when the system refuses.
  [[nodiscard]] static std::optional<TSqlIniReplacing> Begin(const TSqlIniPaths& files,
                                                             TClock& clock,
                                                             std::chrono::milliseconds timeout);

 private:
  explicit TSqlIniReplacing(TNamedMutex mutex) : FMutex(std::move(mutex)) {}

  TNamedMutex FMutex;
};

}  // namespace guardian
