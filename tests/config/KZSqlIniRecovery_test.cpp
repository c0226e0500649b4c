#include "common/NamedMutex.h"
#include "config/SettingsStoreTest.h"
#include "config/SqlIniComponents.h"
#include "config/SqlIniOpenFile.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;

// The user and group "nobody".
constexpr uid_t kNobody = 65534;

class TKZSQLIniRecoveryTest : public TSettingsStoreTest {};

TEST_F(TKZSQLIniRecoveryTest, LeavesAloneWhatIsNoStore) {
  std::filesystem::create_directory(File());
  EXPECT_FALSE(Open()->TryWriteString("s", "k", "v"));
  std::filesystem::remove(File());
  Execute("CREATE TABLE DATA (Something); INSERT INTO DATA VALUES(7)");
  EXPECT_FALSE(Open()->TryWriteString("s", "k", "v"));
  EXPECT_EQ(Ask("SELECT Something FROM DATA"), "7");
  EXPECT_THAT(Lines(), HasSubstr(File() + ") due to problems re-opening the database.\n"));
  EXPECT_FALSE(TKZSQLIniFile(FFolder.Path("no/x.cfg")).TryWriteString("s", "k", "v"));
  EXPECT_FALSE(FFolder.Has("CfgBackups"));
}

TEST_F(TKZSQLIniRecoveryTest, LooksAndTriesAgainAfterItsIntervals) {
  const auto expectOnceAfter = [&](milliseconds interval, const std::function<bool()>& done) {
    FClock.Advance(interval - milliseconds(1));
    EXPECT_FALSE(done()) << interval.count();
    FClock.Advance(milliseconds(1));
    EXPECT_TRUE(done()) << interval.count();
  };
  const auto other = Open();
  other->WriteString("s", "k", "v");
  const auto store = Open();
  const auto reads = [&](const std::string& value) {
    return [&store, value] { return store->ReadString("s", "k", "d") == value; };
  };
  EXPECT_TRUE(reads("v")());
  std::filesystem::rename(File(), FFolder.Path("away"));
  std::filesystem::create_directory(File());
  expectOnceAfter(milliseconds(50), reads("d"));
  std::filesystem::remove(File());
  std::filesystem::rename(FFolder.Path("away"), File());
  expectOnceAfter(milliseconds(1'000), reads("v"));
  std::ignore = Open();
  EXPECT_FALSE(FFolder.Has("CfgBackups/x.cfg.bak")) << "nothing was written";
  expectOnceAfter(std::chrono::hours(1), [&] {
    store->WriteString("s", "l", "w");
    return FFolder.Has("CfgBackups/x.cfg.bak");
  });
  FFolder.Write("x.cfg", std::string(5000, 'g'));
  std::filesystem::create_directory(File() + ".sqlnew");  // It stops the repair.
  EXPECT_FALSE(store->OpenDatabase());
  std::filesystem::remove(File() + ".sqlnew");
  expectOnceAfter(std::chrono::minutes(1), [&] { return store->OpenDatabase(); });
}

TEST_F(TKZSQLIniRecoveryTest, KeepsTheValuesOfAFileThatIsDeletedUnderAnOpenStore) {
  auto store = Open();
  std::vector<std::string> keys;
  const auto expectKept = [&](const std::string& key, const std::function<void()>& leave) {
    keys.push_back(key);
    EXPECT_TRUE(store->TryWriteString("s", key, "v"));
    std::filesystem::remove(File());
    leave();
    EXPECT_EQ(Open()->ReadSection("s"), keys) << key;
  };
  const auto write = [&] { EXPECT_TRUE(store->TryWriteString("s", keys.back(), "w")); };
  expectKept("by a write", write);
  std::unique_ptr<SQLite::Database> other;
  expectKept("by a write that waits", [&] {
    EXPECT_TRUE(store->OpenDatabase());
    other = std::make_unique<SQLite::Database>(File(), SQLite::OPEN_READWRITE);
    other->exec("BEGIN EXCLUSIVE");
    FClock.AtNextWait = [&] {
      std::filesystem::remove(File());
      other->exec("COMMIT");
    };
    write();
  });
  expectKept("c: by a repair", [&] { EXPECT_TRUE(store->AttemptRepair()); });
  expectKept("d: by closing it", [&] { store->CloseDatabase(); });
  expectKept("e: at the end", [&] { store.reset(); });
  // The commit waits for a reader; meanwhile another store makes the file anew.
  store = Open();
  other = std::make_unique<SQLite::Database>(File(), SQLite::OPEN_READWRITE);
  other->exec("BEGIN; SELECT * FROM DATA");
  FClock.AtNextWait = [&] {
    std::filesystem::remove(File());
    std::ignore = Open();
    other->exec("COMMIT");
  };
  write();
  EXPECT_EQ(Open()->ReadString("s", keys.back(), ""), "w");
}

TEST_F(TKZSQLIniRecoveryTest, KeepsFiveGoodBackupsADayApart) {
  void (TKZSQLIniFile::*const ends[])() = {
      &TKZSQLIniFile::CloseDatabase, &TKZSQLIniFile::UpdateFile, &TKZSQLIniFile::DestroyComponents};
  for (const auto end : ends) {
    const auto store = Open();
    store->WriteString("s", "number", "0");
    (*store.*end)();
    EXPECT_TRUE(std::filesystem::remove(Backup(".bak")));
  }
  int number = 0;
  const auto writeAfter = [&](std::chrono::seconds age) {
    if (number > 0) {
      const auto written = std::filesystem::last_write_time(File());
      std::filesystem::last_write_time(Backup(".bak"), written - age);
    }
    Open()->WriteString("s", "number", std::to_string(++number));
  };
  constexpr std::chrono::seconds kDay(86'400);
  for (int day = 1; day <= 6; ++day) writeAfter(day % 2 == 0 ? kDay : -kDay - kDay / 2);
  writeAfter(-kDay / 2);
  writeAfter(kDay - std::chrono::seconds(60));
  std::vector<std::string> numbers;
  for (const char* ending : {".bak", ".old", ".old1", ".old2", ".old3"}) {
    numbers.push_back(AskOf(Backup(ending), "SELECT VALUE FROM DATA"));
  }
  EXPECT_THAT(numbers, ElementsAre("6", "5", "4", "3", "2"));

  Execute("CREATE TABLE other (x); INSERT INTO other VALUES(1)");
  OverwriteLeaf("other", 0);
  writeAfter(kDay);
  EXPECT_EQ(AskOf(Backup(".bak"), "SELECT VALUE FROM DATA"), "6");
  EXPECT_FALSE(FFolder.Has("CfgBackups/x.cfg.bak.new"));
  EXPECT_THAT(Lines(), HasSubstr("TKZSQLIniFile.BackUp Exception: "));
}

TEST_F(TKZSQLIniRecoveryTest, WaitsForAnotherRepairForFiveMinutes) {
  std::ignore = Open();
  TNamedMutex other = TNamedMutex::Create(Backup(""));
  const std::int64_t start = FClock.TickCount();
  EXPECT_FALSE(Open()->AttemptRepair());
  EXPECT_NEAR(static_cast<double>(FClock.TickCount() - start), 310'000, 100);
  FClock.AtNextWait = [&] { other.Close(); };
  EXPECT_TRUE(Open()->AttemptRepair());
}

TEST_F(TKZSQLIniRecoveryTest, GivesEveryFileTheModeAndTheOwnerOfTheStore) {
  const auto look = [&](const std::string& name) {
    struct stat at {};
    ::stat(FFolder.Path(name).c_str(), &at);
    char text[50];
    std::snprintf(text, sizeof(text), " %o of %u:%u", at.st_mode & 07777, at.st_uid, at.st_gid);
    return name + text;
  };
  // Only root may give files away.
  const uid_t user = ::geteuid() == 0 ? kNobody : ::geteuid();
  const gid_t group = ::geteuid() == 0 ? kNobody : ::getegid();
  const std::string of = " of " + std::to_string(user) + ":" + std::to_string(group);
  const mode_t mask = ::umask(0);
  std::ignore = Open();
  EXPECT_THAT(look("x.cfg"), HasSubstr("x.cfg 644 of"));
  EXPECT_THAT(look("CfgBackups/x.cfg.lock"), HasSubstr(" 666 of"));
  std::filesystem::remove_all(FFolder.Path("CfgBackups"));
  for (const std::string& file : {FFolder.Path(), File()}) {
    ASSERT_EQ(::chown(file.c_str(), user, file == File() ? group : ::getegid()), 0);
    ASSERT_EQ(::chmod(file.c_str(), file == File() ? 0640 : 02770), 0);
  }
  Open()->WriteString("s", "k", "v");
  EXPECT_THAT(look("CfgBackups"), StartsWith("CfgBackups 2770 of " + std::to_string(user)));
  EXPECT_EQ(look("CfgBackups/x.cfg.bak"), "CfgBackups/x.cfg.bak 640" + of);
  ASSERT_EQ(::chmod(File().c_str(), 0600), 0);  // Its backup stays as it was.
  FFolder.Write("x.cfg", std::string(5000, 'g'));
  UseTool("exec 3>&1; stat -L -c 'x.cfg.sqltmp %a of %u:%g' /proc/self/fd/3 >\"$0.seen\"");
  EXPECT_FALSE(Open()->AttemptRepair());
  EXPECT_EQ(FFolder.Read("tool/sqlite3.seen"), "x.cfg.sqltmp 600" + of + "\n");
  UseTool("echo 'ROLLBACK;'");
  FClock.Advance(std::chrono::minutes(1));
  EXPECT_TRUE(Open()->AttemptRepair());
  ::umask(mask);
  EXPECT_EQ(look("x.cfg"), "x.cfg 600" + of);
  EXPECT_EQ(look("x.cfg-previous"), "x.cfg-previous 600" + of);
  // Of a store that was deleted, its open connection and then its backup know them.
  std::filesystem::remove_all(FFolder.Path("CfgBackups"));
  const auto open = Open();
  std::filesystem::remove(File());
  EXPECT_TRUE(open->TryWriteString("s", "k", "v"));
  EXPECT_EQ(look("CfgBackups/x.cfg.bak"), "CfgBackups/x.cfg.bak 600" + of);
  EXPECT_EQ(look("x.cfg"), "x.cfg 600" + of);
}

// As a user who may not do everything: root may write to any file.
const TRegisterChild kAsOrdinaryUser(
    "SqlIniOrdinaryUser", [](const std::vector<std::string>& arguments) {
      if (::geteuid() == 0 && (::setgid(kNobody) != 0 || ::setuid(kNobody) != 0)) return 1;
      TKZSQLIniFile store(arguments.front());
      const auto read = [&] {
        std::fprintf(stderr, "read %s\n", store.ReadString("s", "k", "nothing").c_str());
      };
      read();
      store.WriteString("s", "k", "other");
      ::chmod(arguments.front().c_str(), 0644);
      read();
      store.WriteString("s", "k", "other");
      read();
      return 0;
    });

TEST_F(TKZSQLIniRecoveryTest, ReadsAFileItMayNotWriteAndFailsOnOneItMayNotRead) {
  Open()->WriteString("s", "k", "v");
  ::chmod(FFolder.Path().c_str(), 0755);
  const auto outputAt = [&](mode_t mode) {
    for (const char* name : {"", "CfgBackups", "x.cfg", "x.cfg-journal"}) {
      const std::string path = FFolder.Path(name);
      EXPECT_TRUE(::geteuid() != 0 || ::chown(path.c_str(), kNobody, kNobody) == 0);
    }
    ::chmod(File().c_str(), mode);
    TProgram child({"/proc/self/exe", "--child", "SqlIniOrdinaryUser", File()});
    EXPECT_EQ(child.Wait(), 0);
    return child.Output();
  };
  const std::string message = "Config file is read-only. Cannot save updated profile status.\n";
  EXPECT_EQ(outputAt(0444), "read v\n" + message + "read v\nread other\n");
  EXPECT_THAT(outputAt(0200), HasSubstr("Cannot open" + File() + ": Permission Denied\n"));
  FFolder.Write("x.cfg", std::string(5000, 'g'));
  EXPECT_THAT(outputAt(0444), HasSubstr("A file that may not be written is not repaired."));
  ::chmod(FFolder.Path().c_str(), 0);
  EXPECT_THAT(outputAt(0444), HasSubstr("Cannot open" + File() + ": Permission Denied\n"));
  ::chmod(FFolder.Path().c_str(), 0755);
}

TEST_F(TKZSQLIniRecoveryTest, KeepsTheOldValueWhenTheDiskIsFull) {
  const auto store = Open();
  store->WriteString("s", "k", "v");
  ::signal(SIGXFSZ, SIG_IGN);
  const rlim_t before = SetLimit(RLIMIT_FSIZE, 300'000);
  EXPECT_FALSE(store->TryWriteString("s", "k", std::string(1'000'000, 'x')));
  EXPECT_EQ(store->ReadString("s", "k", ""), "v");
  EXPECT_TRUE(store->TryWriteString("s", "k", "w"));
  SetLimit(RLIMIT_FSIZE, before);
  ::signal(SIGXFSZ, SIG_DFL);
}

TEST_F(TKZSQLIniRecoveryTest, TakesTheWritesOfManyThreadsAndConnections) {
  Open()->WriteString("s", "k", "v");
  TKZSQLIniFile shared(File());
  TCrew(6, [&](int index) {
    TKZSQLIniFile own(File());
    const std::string key = std::to_string(index);
    for (int i = 0; i < 30; ++i) {
      // Some are long enough for pages of their own.
      const std::string value = std::to_string(i) + (i % 3 == 0 ? std::string(3000, '.') : "");
      EXPECT_TRUE((index % 2 == 0 ? shared : own).TryWriteString("s", key, value));
      EXPECT_EQ(own.ReadString("s", key, ""), value);
    }
  }).Join();
  EXPECT_EQ(Ask("PRAGMA integrity_check"), "ok");
  EXPECT_THAT(Lines(), Not(HasSubstr("Exception")));
}

TEST_F(TKZSQLIniRecoveryTest, RefusesAStoreThatWasOpenedBeforeAFork) {
  auto store = Open();
  store->WriteString("s", "k", "v");
  const int status = StatusOfChild([&] {
    const bool refused = !store->TryWriteString("s", "k", "w") && !store->OpenDatabase() &&
                         store->ReadString("s", "k", "d") == "d";
    store.reset();  // It has changed, yet the child takes no backup.
    return refused ? 0 : 1;
  });
  EXPECT_EQ(status, 0);
  EXPECT_THAT(Lines(), HasSubstr("The file was opened before a fork."));
  EXPECT_FALSE(FFolder.Has("CfgBackups/x.cfg.bak"));
  EXPECT_TRUE(store->TryWriteString("s", "k", "x"));
  // A value that is longer than what SQLite keeps in memory is half in the file by now.
  store.reset();
  auto file = std::make_unique<TSqlIniOpenFile>(File(), TSqlIniAccess::ReadWrite, FClock);
  TSqlIniComponents& writing = file->Connection(TSqlIniBegin::Write);
  const std::string value(3'000'000, 'v');
  writing.Begin(TSqlIniBegin::Write);
  writing.PutValue(writing.PutSection("s"), "k", value, TSqlIniEdit::LookFirst);
  EXPECT_EQ(StatusOfChild([&] { return file.reset(), 0; }), 0);
  writing.Commit();
  EXPECT_TRUE(Open()->ReadString("s", "k", "") == value) << "the child takes nothing back";
}

}  // namespace
}  // namespace guardian
