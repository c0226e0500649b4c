#pragma once

#include <SQLiteCpp/Database.h>

#include <memory>
#include <string>

#include "common/Clock.h"
#include "common/ErrorLog.h"
#include "config/KZSqlIniFiles.h"
#include "support/TempFolder.h"

namespace guardian {

// A folder with one settings file, and the error log in another folder.
// Owner: the test. Threads: the main thread's.
class TSettingsFolder {
 public:
  TSettingsFolder() { [[maybe_unused]] const bool open = ErrorLog().Open(FLog.Path("errors.log")); }
  ~TSettingsFolder() { ErrorLog().Close(); }
  TSettingsFolder(const TSettingsFolder&) = delete;
  TSettingsFolder& operator=(const TSettingsFolder&) = delete;

  [[nodiscard]] std::string File() const { return Folder.Path("x.cfg"); }
  [[nodiscard]] std::string Backup(const std::string& ending) const {
    return Folder.Path("CfgBackups/x.cfg" + ending);
  }

  [[nodiscard]] std::unique_ptr<TKZSQLIniFile> Open(
      TSqlIniAccess access = TSqlIniAccess::ReadWrite) const {
    return std::make_unique<TKZSQLIniFile>(File(), access);
  }

  // The first column of the first row, by a connection of its own.
  [[nodiscard]] std::string Ask(const std::string& query) const { return AskOf(File(), query); }
  [[nodiscard]] static std::string AskOf(const std::string& file, const std::string& query) {
    SQLite::Database connection(file, SQLite::OPEN_READWRITE, 5000);
    return connection.execAndGet(query).getString();
  }
  void Run(const std::string& statements) const {
    SQLite::Database(File(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE, 5000).exec(statements);
  }

  // The failure lines so far.
  [[nodiscard]] std::string Lines() const { return FLog.Read("errors.log"); }

  TTempFolder Folder;

 private:
  TTempFolder FLog;
};

}  // namespace guardian
