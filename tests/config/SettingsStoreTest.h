#pragma once

#include <SQLiteCpp/Database.h>
#include <sys/stat.h>

#include "config/KZSqlIniFiles.h"
#include "support/TestSupport.h"

namespace guardian {

// A clock that is at the end of each wait at once. Each begins a day after the one before, so that
// no message of an earlier test is withheld from a later one.
class TImpatientClock final : public TFakeClock {
 public:
  TImpatientClock() {
    static int made = 0;
    Advance(std::chrono::hours(24) * ++made);
  }
  bool WaitUntil(TMutex& /*mutex*/, TCondition& /*condition*/, std::int64_t deadlineTick,
                 const std::function<bool()>& predicate) override {
    if (const auto act = std::exchange(AtNextWait, nullptr)) act();
    Advance(std::chrono::milliseconds(std::max<std::int64_t>(0, deadlineTick - TickCount())));
    return predicate();
  }

  std::function<void()> AtNextWait;
};

constexpr std::size_t kPageSize = 2048;

// A folder with one settings file, and the error log in another folder.
class TSettingsStoreTest : public testing::Test {
 protected:
  ~TSettingsStoreTest() override { ::setenv("PATH", FPath.c_str(), 1); }

  [[nodiscard]] std::string File() const { return FFolder.Path("x.cfg"); }
  [[nodiscard]] std::string Backup(const std::string& ending) const {
    return FFolder.Path("CfgBackups/x.cfg" + ending);
  }

  [[nodiscard]] std::unique_ptr<TKZSQLIniFile> Open(
      TSqlIniAccess access = TSqlIniAccess::ReadWrite) {
    return std::make_unique<TKZSQLIniFile>(File(), access, FClock);
  }

  // The first column of the first row, by a connection of its own.
  [[nodiscard]] std::string Ask(const std::string& query) const { return AskOf(File(), query); }
  [[nodiscard]] static std::string AskOf(const std::string& file, const std::string& query) {
    return SQLite::Database(file, SQLite::OPEN_READWRITE, 5000).execAndGet(query).getString();
  }
  void Execute(const std::string& statements) const {
    SQLite::Database(File(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE, 5000).exec(statements);
  }

  // Damages one of the pages that hold the rows of a table or an index, by default as a disk does
  // that loses a sector. The store is closed.
  void OverwriteLeaf(const std::string& table, int number,
                     const std::string& bytes = std::string(kPageSize, '\x0f')) const {
    const std::string page =
        Ask("SELECT pageno FROM dbstat WHERE name='" + table +
            "' AND pagetype='leaf' ORDER BY path LIMIT 1 OFFSET " + std::to_string(number));
    std::string content = FFolder.Read("x.cfg");
    content.replace((std::stoul(page) - 1) * kPageSize, bytes.size(), bytes);
    FFolder.Write("x.cfg", content);
  }

  // Puts a shell script in the place of SQLite's tool.
  void UseTool(const std::string& script) const {
    std::filesystem::create_directory(FFolder.Path("tool"));
    FFolder.Write("tool/sqlite3", "#!/bin/sh\n" + script);
    ::chmod(FFolder.Path("tool/sqlite3").c_str(), 0755);
    ::setenv("PATH", (FFolder.Path("tool:") + FPath).c_str(), 1);
  }

  // The failure lines so far.
  [[nodiscard]] std::string Lines() const { return FLog.Text(); }

  const std::string FPath = ::getenv("PATH");
  TTempFolder FFolder;
  TImpatientClock FClock;

 private:
  TErrorLogInFolder FLog;
};

}  // namespace guardian
