#include <random>

#include "config/SettingsStoreTest.h"

namespace guardian {
namespace {

// By the number of the key.
using TValues = std::map<int, std::string>;

constexpr int kKeys = 120;

std::string SectionOf(int key) { return "section" + std::to_string(key % 5); }
std::string NameOf(int key) { return "key" + std::to_string(key); }

// A whole store of five sections, and a backup that is older. Both are put in place over and over,
// and the store is damaged, written to and repaired.
class TSqlIniRepairTest : public TSettingsStoreTest {
 protected:
  // In memory where there is room for it: a store waits for the disk with every commit.
  static void SetUpTestSuite() {
    if (::access("/dev/shm", W_OK) == 0) ::setenv("TMPDIR", "/dev/shm", 1);
  }

  TSqlIniRepairTest() {
    Open()->UpdateFile();
    FWithoutKeys = FFolder.Read("x.cfg");
    const std::string count = "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i+1 FROM n) ";
    Execute("INSERT INTO SECTIONS " + count + "SELECT 'section'||i, i*2+1 FROM n LIMIT 5;" +
            "INSERT INTO DATA " + count +
            "SELECT 'key'||i, NULL, 'old'||i||"
            "hex(zeroblob(20+i%50/49*1500)), NULL, i%5*2+1 FROM n LIMIT " +
            std::to_string(kKeys));
    Execute(
        "INSERT INTO SECTIONS VALUES('gone', 99); INSERT INTO DATA VALUES('k', 'v', '', 999, 99)");
    FBackup = FFolder.Read("x.cfg");
    FBackedUp = ValuesIn(File());
    Execute("DELETE FROM DATA WHERE ID=999; DELETE FROM SECTIONS WHERE ID=99");
    Execute("UPDATE DATA SET BINVALUE='new'||BINVALUE WHERE ID%3=0");
    FWhole = FFolder.Read("x.cfg");
    FStored = ValuesIn(File());
    std::filesystem::create_directory(FFolder.Path("CfgBackups"));
  }

  void PutInPlace(const std::string& store, bool withBackup, bool withTool) {
    for (const char* name : {"x.cfg-journal", "x.cfg-previous", "CfgBackups/x.cfg.bak"}) {
      std::filesystem::remove(FFolder.Path(name));
    }
    if (withBackup) FFolder.Write("CfgBackups/x.cfg.bak", FBackup);
    FFolder.Write("x.cfg.sqlnew", FBackup);  // Left by a repair that was cut off.
    FFolder.Write("x.cfg", store);
    ::setenv("PATH", withTool ? FPath.c_str() : "/none", 1);
    FClock.Advance(std::chrono::minutes(1));
  }

  // As a failing disk or a careless program might change the file.
  [[nodiscard]] std::string Damaged() {
    std::string bytes = FWhole;
    const auto page = [&] {
      return bytes.data() + FRandom() % (bytes.size() / kPageSize) * kPageSize;
    };
    const auto change = [&](char* start, std::size_t size, std::size_t most) {
      for (auto i = FRandom() % most + 1; i > 0; --i) {
        start[FRandom() % size] = static_cast<char>(FRandom());
      }
    };
    const auto kind = FRandom() % 8;
    if (kind < 3) change(bytes.data(), bytes.size(), 200);
    if (kind == 3 || kind == 4) change(page(), kPageSize, 60);
    if (kind == 5) std::fill_n(page() + FRandom() % 4 * 512, 512, '\0');
    if (kind == 6) std::copy_n(std::string(page(), kPageSize).data(), kPageSize, page());
    if (kind == 7 && FRandom() % 2 == 0) bytes.resize(100 + FRandom() % (bytes.size() - 100));
    if (kind == 7) change(bytes.data(), 100, 4);
    return bytes;
  }

  // What the look-ups of a store find in a file.
  [[nodiscard]] static TValues ValuesIn(const std::string& file) {
    TValues values;
    SQLite::Database database(file, SQLite::OPEN_READWRITE);
    for (int key = 0; key < kKeys; ++key) {
      const std::string section =
          "(SELECT ID FROM SECTIONS WHERE SECTIONNAME='" + SectionOf(key) + "')";
      const std::string query = "SELECT coalesce(VALUE, BINVALUE) FROM DATA WHERE NAME='" +
                                NameOf(key) + "' AND SECTIONID=" + section;
      try {
        values[key] = database.execAndGet(query).getString();
      } catch (const SQLite::Exception&) {
        continue;
      }
    }
    return values;
  }

  // Changes the one page of the index of the keys. The store is closed.
  void EditKeyIndex(const std::function<void(char* page)>& edit) const {
    const std::size_t page =
        std::stoul(Ask("SELECT rootpage FROM sqlite_master WHERE name='sqlite_autoindex_DATA_1'"));
    std::string content = FFolder.Read("x.cfg");
    edit(content.data() + (page - 1) * kPageSize);
    FFolder.Write("x.cfg", content);
  }

  static void ExpectValues(TKZSQLIniFile& store, const TValues& values) {
    for (const auto& [key, value] : values) {
      EXPECT_EQ(store.ReadString(SectionOf(key), NameOf(key), "none"), value) << key;
    }
  }

  std::string FWithoutKeys;
  std::string FBackup;
  std::string FWhole;
  TValues FStored;
  TValues FBackedUp;
  std::mt19937 FRandom;
};

TEST_F(TSqlIniRepairTest, TakesTheGoodBackupOfAFileThatIsEmptyGarbageOrMissing) {
  std::filesystem::create_symlink(File(), FFolder.Path("link"));
  std::string unknown = FWhole;
  unknown[47] = 9;  // A format of the schema that no version of SQLite has.
  const std::string cut = FWhole.substr(0, FWhole.size() - kPageSize);
  for (const std::string& content : {std::string(), std::string(5000, 'g'), unknown}) {
    SCOPED_TRACE(content.size());
    PutInPlace(content, true, true);
    if (!content.empty()) {
      std::filesystem::rename(Backup(".bak"), Backup(".old3"));
      FFolder.Write("CfgBackups/x.cfg.bak", content == unknown ? cut : FWithoutKeys);
    }
    TKZSQLIniFile linked(FFolder.Path("link"), TSqlIniAccess::ReadWrite, FClock);
    ExpectValues(linked, FBackedUp);
    EXPECT_TRUE(std::filesystem::is_symlink(FFolder.Path("link")));
    const char* kept = content.empty() ? "CfgBackups/emptycfgfile.empty" : "x.cfg-previous";
    EXPECT_TRUE(FFolder.Read(kept) == content);
    EXPECT_FALSE(FFolder.Has("x.cfg.sqlnew") || FFolder.Has("x.cfg.sqltmp"));
  }
  // Played back, the journal of another file would put old pages into the new one.
  FFolder.Write("x.cfg", FWhole);
  SQLite::Database writer(File(), SQLite::OPEN_READWRITE);
  writer.exec("PRAGMA cache_size=1; BEGIN; UPDATE DATA SET VALUE='uncommitted'");
  const std::string journal = FFolder.Read("x.cfg-journal");
  writer.exec("ROLLBACK");
  std::filesystem::remove(File());
  FFolder.Write("x.cfg-journal", journal);
  ExpectValues(*Open(), FBackedUp);
  EXPECT_TRUE(FFolder.Read("x.cfg-previous-journal") == journal);
  // A repair was cut off between its two renames.
  std::filesystem::rename(File(), FFolder.Path("x.cfg-previous"));
  FFolder.Write("x.cfg.sqlnew", FWhole);
  ExpectValues(*Open(), FStored);
  EXPECT_THAT(Lines(), AllOf(HasSubstr("Config file not found: " + File() + "\n"),
                             HasSubstr(File() + ": creating new SQL file"),
                             HasSubstr("Found good backup file: " + Backup(".bak")),
                             HasSubstr("Opening good DB that we found: " + File())));
}

// What the tool can do wrong, and what it may have to say of a damaged file. Only damage is a
// reason to take what it could read; otherwise nothing on the disk may change. The store's own
// look-ups find what they can in any case.
TEST_F(TSqlIniRepairTest, TakesADumpThatStoppedForDamageAndNoOther) {
  const std::string rows =
      "cat <<'END'\nBEGIN TRANSACTION;\nINSERT INTO \"SECTIONS\" VALUES('s',1);\n"
      "INSERT INTO DATA VALUES('k',replace('a\\nb','\\n',char(10)),NULL,1,1);\n"
      "INSERT INTO \"DATA\" VALUES('l','w',NULL,2,1); DELETE FROM DATA;\n"
      "INSERT INTO DATA VALUES((SELECT SECTIONNAME FROM SECTIONS),'',NULL,3,1);\nEND\n";
  const auto stopped = [&](const std::string& error) {
    return rows + "echo '/**** ERROR: (" + error + ") text *****/'\necho 'ROLLBACK; -- errors'\n";
  };
  // As for a user whose settings file sends all output elsewhere.
  const std::string ofUser =
      "case \"$*\" in *-init*) ;; *) set -- -init \"$0.rc\" \"$@\" ;; esac\n"
      "PATH=\"${PATH#*:}\" exec sqlite3 \"$@\"";
  const std::string noTool = "The dump was not made, exit code 12";
  const std::string cut = "x.cfg.sqltmp is not complete.";
  // The last text is what the dump's value then is.
  const std::tuple<const char*, std::string, std::string, bool, std::string> cases[] = {
      {"fails at once", "exit 3", cut, false, ""},
      {"meets a busy file", stopped("5"), "The dump failed: /**** ERROR: (5) text", false, ""},
      {"cannot be run", "exit 126", noTool + "6", true, ""},
      {"is missing", "exit 127", noTool + "7", true, ""},
      {"is ended", rows + "echo 'COMMIT;'\nyes >&2", "exit code -1: y\n", false, ""},
      {"meets damage", stopped("11") + "exit 1", "", true, "a\nb"},
      {"finds no database", stopped("26") + "exit 1", "", true, "a\nb"},
      {"ends well", rows + "echo 'COMMIT;'", ": 2 rows could be read, 2 were", true, "a\nb"},
      {"is the real one", ofUser, "", true, ""},
  };
  FFolder.Write("x.cfg", FWhole);
  OverwriteLeaf("DATA", 1);
  const std::string damaged = FFolder.Read("x.cfg");
  const TValues readable = ValuesIn(File());
  EXPECT_THAT(readable.size(), AllOf(testing::Gt(50), testing::Lt(kKeys)));
  for (const auto& [name, script, line, isRepaired, value] : cases) {
    SCOPED_TRACE(name);
    PutInPlace(damaged, false, true);
    UseTool(script);
    FFolder.Write("tool/sqlite3.rc", ".output /dev/null\n");
    const auto store = Open();
    EXPECT_EQ(store->AttemptRepair(), isRepaired);
    EXPECT_THAT(Lines(), HasSubstr(line));
    EXPECT_FALSE(FFolder.Has("x.cfg.sqlnew") || FFolder.Has("x.cfg.sqltmp"));
    EXPECT_FALSE(FFolder.Has("x.cfg.sqlnew-journal"));
    EXPECT_TRUE(FFolder.Read(isRepaired ? "x.cfg-previous" : "x.cfg") == damaged);
    EXPECT_EQ(FFolder.Has("x.cfg-previous"), isRepaired);
    ExpectValues(*store, readable);
    EXPECT_EQ(store->ReadString("s", "k", ""), value);
  }
  EXPECT_LT(Lines().size(), 100'000U) << "however much it has to say";
  PutInPlace(damaged, false, true);
  SQLite::Database writer(File(), SQLite::OPEN_READWRITE);
  writer.exec("BEGIN IMMEDIATE");
  EXPECT_FALSE(Open()->AttemptRepair()) << "under the hands of a writer";
  FClock.AtNextWait = [&] {
    FFolder.Write("mended", FWhole);
    std::filesystem::rename(FFolder.Path("mended"), File());
    writer.exec("ROLLBACK");
  };
  EXPECT_TRUE(Open()->AttemptRepair());
  EXPECT_FALSE(FFolder.Has("x.cfg-previous")) << "nor what somebody else has mended";
  FFolder.Write("it's; exit #", damaged);
  TKZSQLIniFile named(FFolder.Path("it's; exit #"), TSqlIniAccess::ReadWrite, FClock);
  EXPECT_TRUE(named.AttemptRepair());
  ExpectValues(named, readable);
}

TEST_F(TSqlIniRepairTest, KeepsWhatCouldBeReadAndWhatWasWrittenAfterAnyDamage) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  constexpr unsigned kDamages = 40;
#else
  constexpr unsigned kDamages = 400;
#endif
  unsigned repairs = 0;
  for (unsigned seed = 0; seed < kDamages && !HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    FRandom.seed(seed);
    const bool withBackup = seed % 2 == 0;
    PutInPlace(Damaged(), withBackup, seed % 3 != 0);
    TValues stored = FStored;
    TValues written;
    const auto store = Open();
    // What a repair puts aside is the damaged file as it was just before.
    const auto expectKept = [&] {
      if (!FFolder.Has("x.cfg-previous")) return;
      TValues expected = ValuesIn(File() + "-previous");
      std::erase_if(expected, [&](const auto& each) { return stored[each.first] != each.second; });
      ExpectValues(*store, expected);
      EXPECT_FALSE(FFolder.Has("x.cfg.sqlnew-journal"));
      std::filesystem::remove(File() + "-previous");
      ++repairs;
    };
    expectKept();
    for (const char* value : {"one", "two"}) {
      const int key = static_cast<int>(FRandom() % kKeys);
      stored[key] = value;
      written.erase(key);
      if (store->TryWriteString(SectionOf(key), NameOf(key), value)) written[key] = value;
      expectKept();
    }
    // Without a backup nobody can tell damaged definitions of the tables from those of others.
    EXPECT_TRUE(store->AttemptRepair() || !withBackup) << Lines();
    expectKept();
    ExpectValues(*store, written);
  }
  EXPECT_GT(repairs, kDamages / 2);
  EXPECT_THAT(Lines(), AllOf(HasSubstr("Trying to close and re-open the database."),
                             HasSubstr("The damaged file is kept as ")));
}

TEST_F(TSqlIniRepairTest, StoresAlsoWhatAnIndexInDisorderLosesWithoutAnError) {
  std::string readOnly = FWhole;
  readOnly[18] = 9;  // A version for which SQLite does not write.
  FFolder.Write("x.cfg", readOnly);
  EXPECT_TRUE(Open()->TryWriteString("section1", "key1", "new"));
  FFolder.Write("x.cfg", FWhole);
  // The places of its entries, two bytes each.
  EditKeyIndex([](char* page) { std::rotate(page + 8, page + 28, page + 8 + 2 * kKeys); });
  const auto store = Open();
  for (int key = 0; key < kKeys; ++key) {
    EXPECT_TRUE(store->TryWriteString(SectionOf(key), NameOf(key), "new"));
    EXPECT_EQ(store->ReadString(SectionOf(key), NameOf(key), ""), "new") << key;
  }
}

// Each with a backup and without the tool, and the other way round.
TEST_F(TSqlIniRepairTest, FindsTheSectionsOfKeysWhereverTheirNamesStand) {
  const std::string emptyIndex("\x0a\0\0\0\0\x08\0\0", 8);
  const std::string sectionIndex = "sqlite_autoindex_SECTIONS_1";
  const std::pair<std::string, std::function<void()>> cases[] = {
      {"names nowhere",
       [&] {
         OverwriteLeaf("SECTIONS", 0);
         OverwriteLeaf(sectionIndex, 0);
       }},
      {"a section with two numbers", [&] { OverwriteLeaf(sectionIndex, 0, emptyIndex); }},
      {"a number that is none",
       [&] {
         Execute("INSERT INTO DATA VALUES('key1', 'lost', NULL, 999, 'x')");
         Execute("INSERT INTO DATA VALUES(CAST(X'6B0061' AS TEXT), 'no name', NULL, 998, 3)");
         OverwriteLeaf(sectionIndex, 0, emptyIndex);
       }},
      {"a later row of a key, unknown to the index",
       [&] {
         std::string index;
         EditKeyIndex([&](char* page) {
           index.assign(page, kPageSize);
           emptyIndex.copy(page, emptyIndex.size());
         });
         Execute("INSERT INTO DATA VALUES('key1', 'later', NULL, 999, 3)");
         EditKeyIndex([&](char* page) { index.copy(page, kPageSize); });
       }},
  };
  for (const auto& [name, damage] : cases) {
    for (const bool withBackup : {true, false}) {
      SCOPED_TRACE(name + (withBackup ? ", with a backup" : ", without a backup"));
      PutInPlace(FWhole, withBackup, !withBackup);
      damage();
      const auto store = Open();
      EXPECT_TRUE(store->TryWriteString("section1", "new", "v"));
      EXPECT_TRUE(store->AttemptRepair());
      EXPECT_EQ(store->ReadString("section1", "new", ""), "v");
      EXPECT_EQ(store->ReadString("gone", "k", "none"), withBackup ? "v" : "none");
      if (name == "names nowhere" && !withBackup) {
        EXPECT_EQ(store->ReadString("Recovered 5", "key2", ""), FStored[2]);
      } else {
        TValues expected = FStored;
        if (name.starts_with("a later row")) expected[1] = "later";
        ExpectValues(*store, expected);
      }
      EXPECT_EQ(Ask("PRAGMA integrity_check"), "ok");
      EXPECT_EQ(Ask("SELECT COUNT(*) FROM DATA WHERE typeof(SECTIONID)<>'integer' OR "
                    "typeof(NAME)<>'text' OR instr(NAME, char(0))"),
                "0");
    }
  }
}

}  // namespace
}  // namespace guardian
