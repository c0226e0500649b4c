#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "config/KZSqlIniFiles.h"
#include "config/SettingsFolder.h"
#include "support/ChildProcess.h"
#include "support/Program.h"

namespace guardian {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kCannotOpen = "This file cannot be opened.";

class TKZSQLIniRecoveryTest : public testing::Test {
 protected:
  static std::string Key(int number) { return "key" + std::to_string(number); }
  static std::string Value(int number) { return "value" + std::to_string(number); }

  // A store of many pages, and none of its backups.
  void FillStore(int keys = 2000) {
    std::ignore = FFolder.Open();
    FFolder.Run(
        "PRAGMA synchronous=OFF; INSERT INTO SECTIONS VALUES('s',1);"
        "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i+1 FROM n WHERE i<" +
        std::to_string(keys - 1) +
        ") INSERT INTO DATA SELECT 'key'||i,'value'||i,NULL,i+1,1 FROM n");
    std::filesystem::remove_all(FFolder.Folder.Path("CfgBackups"));
  }

  // As a disk does that loses a sector. The store is closed.
  void Overwrite(const std::string& file, std::streamoff from, const std::string& bytes) {
    std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
    stream.seekp(from).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }

  // The file offset of one of the pages that hold the rows of the table. That of key0 is read when
  // a file is opened.
  std::streamoff LeafOf(const std::string& table, int number) {
    return 2048 * (std::stol(FFolder.Ask("SELECT pageno FROM dbstat WHERE name='" + table +
                                         "' AND pagetype='leaf' ORDER BY path LIMIT 1 OFFSET " +
                                         std::to_string(number))) -
                   1);
  }

  [[nodiscard]] std::string FirstUnreadableKey(TKZSQLIniFile& store) {
    int number = 0;
    while (store.ReadString("s", Key(number), "") == Value(number)) ++number;
    return Key(number);
  }

  int ReadableValues(TKZSQLIniFile& store, int keys = 2000) {
    int readable = 0;
    for (int i = 0; i < keys; ++i) readable += store.ReadString("s", Key(i), "") == Value(i);
    return readable;
  }

  TSettingsFolder FFolder;
};

TEST_F(TKZSQLIniRecoveryTest, MakesAMissingFileAndSaysSo) {
  std::ignore = FFolder.Open();
  EXPECT_THAT(FFolder.Lines(), HasSubstr("Config file not found: " + FFolder.File()));
  EXPECT_THAT(FFolder.Lines(), HasSubstr("No Backup DB Found"));
  EXPECT_THAT(FFolder.Lines(), HasSubstr(FFolder.File() + ": creating new SQL file"));
}

TEST_F(TKZSQLIniRecoveryTest, TakesTheGoodBackupOfAFileThatIsMissingEmptyOrGarbage) {
  struct TCase {
    const char* Name;
    std::function<void()> Spoil;
    std::string KeptAs;
  };
  const std::string file = FFolder.File();
  const std::vector<TCase> cases = {
      {"missing", [&] { std::filesystem::remove(file); }, ""},
      {"empty", [&] { FFolder.Folder.Write("x.cfg", ""); }, "CfgBackups/emptycfgfile.empty"},
      {"garbage", [&] { FFolder.Folder.Write("x.cfg", std::string(5000, 'g')); }, "x.cfg-previous"},
      {"short garbage", [&] { FFolder.Folder.Write("x.cfg", "[ini]\na=b\n"); }, "x.cfg-previous"},
      {"damaged head", [&] { Overwrite(file, 0, std::string(200, '\x55')); }, "x.cfg-previous"},
      {"cut off", [&] { std::filesystem::resize_file(file, 4096); }, "x.cfg-previous"},
      {"no tables",
       [&] {
         std::filesystem::remove(file);
         FFolder.Run("PRAGMA user_version=1");
       },
       "CfgBackups/emptycfgfile.empty"},
  };
  FFolder.Open()->WriteString("s", "k", "v");  // Its close makes the backup.
  for (const TCase& test : cases) {
    SCOPED_TRACE(test.Name);
    test.Spoil();
    const std::string spoilt = FFolder.Folder.Read("x.cfg");
    const auto store = FFolder.Open();
    EXPECT_EQ(store->ReadString("s", "k", "default"), "v");
    if (!test.KeptAs.empty()) {
      EXPECT_EQ(FFolder.Folder.Read(test.KeptAs), spoilt);
    }
    EXPECT_FALSE(FFolder.Folder.Has("x.cfg.sqlnew"));
    EXPECT_FALSE(FFolder.Folder.Has("x.cfg.sqltmp"));
  }
  EXPECT_THAT(FFolder.Lines(), HasSubstr("Found good backup file: " + FFolder.Backup(".bak")));
  EXPECT_THAT(FFolder.Lines(), HasSubstr("Opening good DB that we found"));
}

TEST_F(TKZSQLIniRecoveryTest, LeavesAloneWhatIsNoStore) {
  std::filesystem::create_directory(FFolder.File());
  {
    const auto store = FFolder.Open();
    EXPECT_FALSE(store->TryWriteString("s", "k", "v"));
    EXPECT_EQ(store->ReadString("s", "k", "d"), "d");
  }
  std::filesystem::remove(FFolder.File());
  FFolder.Run("CREATE TABLE DATA (Something); INSERT INTO DATA VALUES(7)");
  EXPECT_FALSE(FFolder.Open()->TryWriteString("s", "k", "v"));
  EXPECT_EQ(FFolder.Ask("SELECT Something FROM DATA"), "7");
  EXPECT_THAT(FFolder.Lines(), HasSubstr(kCannotOpen));
  EXPECT_THAT(FFolder.Lines(), HasSubstr("NOT retrying the failed operation"));
  EXPECT_THAT(FFolder.Lines(), HasSubstr(") due to problems re-opening the database."));
  EXPECT_FALSE(TKZSQLIniFile("", TSqlIniAccess::ReadWrite).TryWriteString("s", "k", "v"));
  EXPECT_FALSE(TKZSQLIniFile(FFolder.Folder.Path("no/x.cfg")).TryWriteString("s", "k", "v"));
  EXPECT_FALSE(FFolder.Folder.Has("CfgBackups"));
}

TEST_F(TKZSQLIniRecoveryTest, SavesTheReadableRowsWhenAWriteMeetsDamage) {
  FillStore();
  Overwrite(FFolder.File(), LeafOf("DATA", 5), std::string(2048, '\x0f'));
  const auto store = FFolder.Open();
  const int before = ReadableValues(*store);
  ASSERT_GT(before, 1000);
  ASSERT_LT(before, 2000);
  const std::string key = FirstUnreadableKey(*store);
  EXPECT_TRUE(store->TryWriteString("s", key, "new"));
  EXPECT_EQ(store->ReadString("s", key, ""), "new");
  EXPECT_GE(ReadableValues(*store), before);
  EXPECT_EQ(FFolder.Ask("PRAGMA integrity_check"), "ok");
  EXPECT_TRUE(FFolder.Folder.Has("x.cfg-previous"));
  EXPECT_THAT(FFolder.Lines(), HasSubstr("Trying to close and re-open the database."));
  EXPECT_THAT(FFolder.Lines(), HasSubstr("The damaged file is kept as "));
}

TEST_F(TKZSQLIniRecoveryTest, FillsWhatCannotBeReadFromTheBackupAndKeepsTheNewerRest) {
  FillStore();
  FFolder.Open()->WriteString("gone", "k", "in the backup only");
  FFolder.Run("UPDATE DATA SET VALUE='newer' WHERE NAME='key1999'");
  Overwrite(FFolder.File(), LeafOf("DATA", 5), std::string(2048, '\x0f'));
  Overwrite(FFolder.File(), LeafOf("SECTIONS", 0), std::string(2048, '\x0f'));
  const auto store = FFolder.Open();
  EXPECT_TRUE(store->AttemptRepair());
  EXPECT_EQ(ReadableValues(*store), 1999);
  EXPECT_EQ(store->ReadString("s", "key1999", ""), "newer");
  EXPECT_EQ(store->ReadString("gone", "k", ""), "in the backup only");
}

TEST_F(TKZSQLIniRecoveryTest, NamesTheSectionsOfWhichOnlyKeysAreLeft) {
  FillStore(10);
  Overwrite(FFolder.File(), LeafOf("SECTIONS", 0), std::string(2048, '\x0f'));
  const auto store = FFolder.Open();
  EXPECT_TRUE(store->AttemptRepair());
  EXPECT_EQ(store->ReadString("Recovered 1", Key(3), ""), Value(3));
}

TEST_F(TKZSQLIniRecoveryTest, ChangesNothingWhenTheToolIsMissing) {
  FillStore();
  Overwrite(FFolder.File(), LeafOf("DATA", 5), std::string(2048, '\x0f'));
  const std::string path = ::getenv("PATH");
  const std::string before = FFolder.Folder.Read("x.cfg");
  ::setenv("PATH", "/nowhere", 1);
  const auto store = FFolder.Open();
  EXPECT_FALSE(store->AttemptRepair());
  ::setenv("PATH", path.c_str(), 1);
  store->CloseDatabase();
  EXPECT_EQ(FFolder.Folder.Read("x.cfg"), before);
  EXPECT_FALSE(FFolder.Folder.Has("x.cfg-previous"));
  EXPECT_THAT(FFolder.Lines(), HasSubstr("TKZSQLIniFile.AttemptRepair Exception: "));
  EXPECT_TRUE(store->AttemptRepair());
}

TEST_F(TKZSQLIniRecoveryTest, FollowsAFileThatAnotherStoreHasReplaced) {
  FillStore();
  const auto one = FFolder.Open();
  const auto two = FFolder.Open();
  EXPECT_EQ(two->ReadString("s", Key(1), ""), Value(1));
  one->CloseDatabase();
  two->CloseDatabase();
  Overwrite(FFolder.File(), LeafOf("DATA", 5), std::string(2048, '\x0f'));
  EXPECT_TRUE(two->OpenDatabase());
  EXPECT_TRUE(one->AttemptRepair());
  EXPECT_TRUE(two->TryWriteString("s", "after", "v"));
  EXPECT_EQ(one->ReadString("s", "after", ""), "v");
  EXPECT_EQ(TSettingsFolder::AskOf(FFolder.File() + "-previous",
                                   "SELECT COUNT(*) FROM DATA WHERE NAME='after'"),
            "0");
}

TEST_F(TKZSQLIniRecoveryTest, KeepsTheValuesOfAFileThatIsDeletedUnderAnOpenStore) {
  const auto store = FFolder.Open();
  store->WriteString("s", "k", "v");
  std::filesystem::remove(FFolder.File());
  EXPECT_TRUE(store->TryWriteString("s", "l", "w"));
  EXPECT_EQ(store->ReadString("s", "k", ""), "v");
  EXPECT_EQ(FFolder.Open()->ReadString("s", "k", ""), "v");
}

// Played back, it would put old pages into the file that was put together anew.
TEST_F(TKZSQLIniRecoveryTest, PlaysNoJournalOfAnotherFileBack) {
  FillStore();
  {
    SQLite::Database writer(FFolder.File(), SQLite::OPEN_READWRITE);
    writer.exec("PRAGMA cache_size=1; BEGIN; UPDATE DATA SET VALUE='uncommitted'");
    std::filesystem::copy_file(FFolder.File() + "-journal", FFolder.Folder.Path("journal"));
  }
  FFolder.Open()->WriteString("s", "k", "v");
  std::filesystem::remove(FFolder.File());
  std::filesystem::rename(FFolder.Folder.Path("journal"), FFolder.File() + "-journal");
  const auto store = FFolder.Open();
  EXPECT_EQ(store->ReadString("s", "k", ""), "v");
  EXPECT_EQ(ReadableValues(*store), 2000);
  EXPECT_GT(std::filesystem::file_size(FFolder.File() + "-previous-journal"), 0U);
  EXPECT_EQ(FFolder.Ask("PRAGMA integrity_check"), "ok");
}

TEST_F(TKZSQLIniRecoveryTest, KeepsFiveBackupsADayApart) {
  for (int day = 1; day <= 7; ++day) {
    FFolder.Open()->WriteString("s", "day", std::to_string(day));
    FFolder.Open()->WriteString("s", "later", std::to_string(day));
    const auto made = std::filesystem::last_write_time(FFolder.Backup(".bak"));
    std::filesystem::last_write_time(FFolder.Backup(".bak"), made - std::chrono::hours(24));
  }
  std::vector<std::string> days;
  for (const char* ending : {".bak", ".old", ".old1", ".old2", ".old3"}) {
    days.push_back(
        TSettingsFolder::AskOf(FFolder.Backup(ending), "SELECT VALUE FROM DATA WHERE NAME='day'"));
  }
  EXPECT_THAT(days, ElementsAre("7", "6", "5", "4", "3"));
}

TEST_F(TKZSQLIniRecoveryTest, TakesNoBackupOfADamagedFile) {
  FillStore();
  FFolder.Open()->WriteString("t", "k", "v");
  std::filesystem::last_write_time(
      FFolder.Backup(".bak"),
      std::filesystem::file_time_type::clock::now() - std::chrono::hours(48));
  Overwrite(FFolder.File(), LeafOf("DATA", 5), std::string(2048, '\x0f'));
  FFolder.Open()->WriteString("t", "k", "w");
  EXPECT_FALSE(FFolder.Folder.Has("CfgBackups/x.cfg.old"));
  EXPECT_EQ(TSettingsFolder::AskOf(FFolder.Backup(".bak"), "PRAGMA integrity_check"), "ok");
  EXPECT_THAT(FFolder.Lines(), HasSubstr("TKZSQLIniFile.BackUp Exception: "));
}

TEST_F(TKZSQLIniRecoveryTest, GivesEveryFileTheModeOfTheStore) {
  FFolder.Open()->WriteString("s", "k", "v");
  std::filesystem::remove_all(FFolder.Folder.Path("CfgBackups"));
  ::chmod(FFolder.File().c_str(), 0600);
  FFolder.Open()->WriteString("s", "k", "w");
  FFolder.Folder.Write("x.cfg", "garbage");
  EXPECT_EQ(FFolder.Open()->ReadString("s", "k", ""), "w");
  for (const std::string& file : {FFolder.File(), FFolder.Backup(".bak")}) {
    struct stat info {};
    ASSERT_EQ(::stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600U) << file;
  }
}

// As a user who may not do everything: root may write to any file.
int AsOrdinaryUser(const std::vector<std::string>& arguments) {
  if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) return 1;
  TKZSQLIniFile store(arguments.front());
  std::fprintf(stderr, "read %s\n", store.ReadString("s", "k", "nothing").c_str());
  store.WriteString("s", "k", "one");
  store.WriteString("s", "k", "two");
  std::fprintf(stderr, "read %s\n", store.ReadString("s", "k", "nothing").c_str());
  return 0;
}
const TRegisterChild kAsOrdinaryUser("SqlIniOrdinaryUser", AsOrdinaryUser);

TEST_F(TKZSQLIniRecoveryTest, ReadsAFileItMayNotWriteAndFailsOnOneItMayNotRead) {
  FFolder.Open()->WriteString("s", "k", "v");
  ::chmod(FFolder.Folder.Path().c_str(), 0755);
  const auto outputAt = [&](mode_t mode) {
    ::chmod(FFolder.File().c_str(), mode);
    TProgram child({"/proc/self/exe", "--child", "SqlIniOrdinaryUser", FFolder.File()});
    EXPECT_EQ(child.Wait(), 0);
    return child.Output();
  };
  const std::string message = "Config file is read-only. Cannot save updated profile status.\n";
  EXPECT_EQ(outputAt(0444), "read v\n" + message + message + "read v\n");
  const std::string denied = "Cannot open" + FFolder.File() + ": Permission Denied\n";
  EXPECT_THAT(outputAt(0200), HasSubstr(denied));
}

int OnFullDisk(const std::vector<std::string>& arguments) {
  ::signal(SIGXFSZ, SIG_IGN);
  const rlimit limit{300'000, 300'000};
  TKZSQLIniFile store(arguments.front());
  if (!store.TryWriteString("s", "k", "v") || ::setrlimit(RLIMIT_FSIZE, &limit) != 0) return 1;
  if (store.TryWriteString("s", "k", std::string(1'000'000, 'x'))) return 2;
  if (store.ReadString("s", "k", "") != "v") return 3;
  return store.TryWriteString("s", "k", "w") ? 0 : 4;
}
const TRegisterChild kOnFullDisk("SqlIniFullDisk", OnFullDisk);

TEST_F(TKZSQLIniRecoveryTest, KeepsTheOldValueWhenTheDiskIsFull) {
  TProgram child({"/proc/self/exe", "--child", "SqlIniFullDisk", FFolder.File()});
  EXPECT_EQ(child.Wait(), 0) << child.Output();
  EXPECT_THAT(child.Output(), HasSubstr("TKZSQLIniFile.WriteString Exception: "));
  EXPECT_THAT(child.Output(), HasSubstr("Retrying the failed operation"));
  EXPECT_THAT(child.Output(), HasSubstr("NOT retrying the failed operation"));
  EXPECT_EQ(FFolder.Open()->ReadString("s", "k", ""), "w");
}

TEST_F(TKZSQLIniRecoveryTest, RepairsAFileWithAnyName) {
  const std::string file = FFolder.Folder.Path("it's $HOME \"x\" `y`\n;.cfg");
  { TKZSQLIniFile(file).WriteString("s", "k", "v"); }
  std::filesystem::remove_all(FFolder.Folder.Path("CfgBackups"));
  // The index of the names alone, so that the tool has to read the row.
  const auto page = std::stol(TSettingsFolder::AskOf(
      file, "SELECT rootpage FROM sqlite_master WHERE name='sqlite_autoindex_DATA_1'"));
  Overwrite(file, 2048 * (page - 1), std::string(2048, '\x0f'));
  TKZSQLIniFile store(file);
  EXPECT_TRUE(store.TryWriteString("s", "l", "w"));
  EXPECT_EQ(store.ReadString("s", "k", ""), "v");
}

}  // namespace
}  // namespace guardian
