#pragma once

#include <sys/types.h>

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

struct TSqlIniOwnership {
  mode_t Mode = 0;  // The permissions alone.
  uid_t User = 0;
  gid_t Group = 0;
};

// The files of one store, and the renames by which one takes the place of another. For the store
// "<folder>/<name>":
//
//   <folder>/<name>                        the database
//   <folder>/<name>-previous               the damaged file that a repair has replaced
//   <folder>/<name>.sqltmp                 the dump of a damaged database while it is repaired
//   <folder>/<name>.sqlnew                 a new database until it is complete
//   <folder>/CfgBackups/<name>.bak         the newest backup; older ones end in .old, .old1, .old2,
//                                          .old3
//   <folder>/CfgBackups/<name>-previous.*  older damaged files, with the same endings
//   <folder>/CfgBackups/emptycfgfile.empty an empty file that was found in a store's place
//   <folder>/CfgBackups/<name>.lock        held while the database or its backups are replaced
//
// A database is never opened here, only named, linked and renamed: closing any descriptor of it
// would release SQLite's locks on it for the whole process.
// Owner: one store.
// Threads: immutable after construction.
class TSqlIniPaths {
 public:
  // Follows the symbolic links of the name, so that renames replace the file and not the link.
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

  // Nothing for a file that is not there.
  [[nodiscard]] static std::optional<TSqlIniOwnership> OwnershipOf(const std::string& name);

  // Makes an empty file in the place of an older one. It gets the mode and, as far as the system
  // allows, the owner of its model; mode 0644 without a model. Throws ESystemError.
  static void MakeEmptyFile(const std::string& name, const std::optional<TSqlIniOwnership>& model);

  // Removes the file and its journals, if they are there.
  static void Remove(const std::string& name);

  // Makes the new backup the newest one, and each older one the next older.
  void RotateBackups() const;

  // Put the replacement in the place of the store by one rename. A file that is there first gets
  // its other name, and so do its journals, which SQLite would play back into the replacement.
  // Throw ESystemError. The store is then what it was before; on a file system without hard links
  // it may be missing, and the replacement is among its copies. ReplaceDamaged also puts the
  // replacement where there is no file.
  void ReplaceDamaged() const;
  void ReplaceEmpty() const;

 private:
  [[nodiscard]] std::string InBackups(const std::string& ending) const;
  void KeepAs(const std::string& name) const;
  void PutReplacementInPlace() const;

  std::string FStore;
  std::string FBackupFolder;
};

// Held while a store's file or its backups are replaced, by one thread of one process at a time.
// Owner: the scope that replaces.
// Threads: not shared.
class TSqlIniReplacing {
 public:
  // Waits at most for the given time until nobody else replaces; returns nothing when the time is
  // over. Throws ESystemError when the system refuses the lock.
  [[nodiscard]] static std::optional<TSqlIniReplacing> Begin(const TSqlIniPaths& files,
                                                             TClock& clock,
                                                             std::chrono::milliseconds timeout);

 private:
  explicit TSqlIniReplacing(TNamedMutex mutex) : FMutex(std::move(mutex)) {}

  TNamedMutex FMutex;
};

}  // namespace guardian
