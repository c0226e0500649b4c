#include <unistd.h>

#include <random>
#include <tuple>

#include "config/SettingsStoreTest.h"

namespace guardian {
namespace {

using testing::HasSubstr;
using TKey = std::pair<std::string, std::string>;  // Of a section.
using TValues = std::map<TKey, std::string>;

constexpr unsigned kKeys = 80;
constexpr std::size_t kPage = 2048;

// A whole store of five sections, and a backup that is older. Both are put in place over and over,
// and the store is damaged, written to and repaired.
class TSqlIniRemainsTest : public TSettingsStoreTest {
 protected:
  // In memory where there is room for it: a store waits for the disk with every commit.
  static void SetUpTestSuite() {
    if (::access("/dev/shm", W_OK) == 0) ::setenv("TMPDIR", "/dev/shm", 1);
  }

  TSqlIniRemainsTest() {
    Open()->UpdateFile();
    const std::string count = "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i+1 FROM n) ";
    Execute("INSERT INTO SECTIONS " + count + "SELECT 'section'||i, i+1 FROM n LIMIT 5");
    Execute("INSERT INTO DATA " + count +
            "SELECT 'key'||i, NULL, 'old'||i||hex(zeroblob(20+i%50/"
            "49*1500)), NULL, i%5+1 FROM n LIMIT " +
            std::to_string(kKeys));
    Execute("INSERT INTO SECTIONS VALUES('gone',99); INSERT INTO DATA VALUES('k','v','',999,99)");
    FBackup = FFolder.Read("x.cfg");
    FBackedUp = ValuesIn(File());
    Execute("DELETE FROM DATA WHERE ID=999; DELETE FROM SECTIONS WHERE ID=99");
    Execute("UPDATE DATA SET BINVALUE='new'||BINVALUE WHERE ID%3=0");
    FWhole = FFolder.Read("x.cfg");
    FStored = ValuesIn(File());
    std::filesystem::create_directory(FFolder.Path("CfgBackups"));
  }
  ~TSqlIniRemainsTest() override { ::setenv("PATH", FPath.c_str(), 1); }

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
    const auto page = [&] { return bytes.data() + FRandom() % (bytes.size() / kPage) * kPage; };
    const auto change = [&](char* start, std::size_t size, std::size_t most) {
      for (auto i = FRandom() % most + 1; i > 0; --i) {
        start[FRandom() % size] = static_cast<char>(FRandom());
      }
    };
    const auto kind = FRandom() % 8;
    if (kind < 3) change(bytes.data(), bytes.size(), 200);
    if (kind == 3 || kind == 4) change(page(), kPage, 60);
    if (kind == 5) std::fill_n(page() + FRandom() % 4 * 512, 512, '\0');
    if (kind == 6) std::copy_n(std::string(page(), kPage).data(), kPage, page());
    if (kind == 7 && FRandom() % 2 == 0) bytes.resize(100 + FRandom() % (bytes.size() - 100));
    if (kind == 7) change(bytes.data(), 100, 4);
    return bytes;
  }

  static TKey Key(std::size_t i) {
    return {"section" + std::to_string(i % 5), "key" + std::to_string(i)};
  }
  // What the look-ups of a store find in a file.
  [[nodiscard]] TValues ValuesIn(const std::string& file) const {
    TValues values;
    SQLite::Database database(file, SQLite::OPEN_READWRITE);
    for (unsigned i = 0; i < kKeys; ++i) {
      const TKey key = Key(i);
      const std::string query =
          "SELECT coalesce(VALUE, BINVALUE) FROM DATA WHERE SECTIONID=(SELECT "
          "ID FROM SECTIONS WHERE SECTIONNAME='" +
          key.first + "') AND NAME='" + key.second + "'";
      try {
        values[key] = database.execAndGet(query).getString();
      } catch (const SQLite::Exception&) {
        continue;
      }
    }
    return values;
  }

  void Overwrite(std::size_t offset, const std::string& bytes) const {
    std::string content = FFolder.Read("x.cfg");
    FFolder.Write("x.cfg", content.replace(offset, bytes.size(), bytes));
  }
  // The root page of a table or an index, which is returned as it was.
  std::string OverwriteRoot(const std::string& name, const std::string& bytes) const {
    const std::string root = Ask("SELECT rootpage FROM sqlite_master WHERE name='" + name + "'");
    const std::size_t start = (std::stoul(root) - 1) * kPage;
    const std::string page = FFolder.Read("x.cfg").substr(start, kPage);
    Overwrite(start, bytes);
    return page;
  }

  void ExpectValues(TKZSQLIniFile& store, const TValues& values) const {
    for (const auto& [key, value] : values) {
      EXPECT_EQ(store.ReadString(key.first, key.second, "none"), value) << key.second;
    }
  }

  const std::string FPath = ::getenv("PATH");
  std::string FBackup;
  std::string FWhole;
  TValues FStored;
  TValues FBackedUp;
  std::mt19937 FRandom;
};

TEST_F(TSqlIniRemainsTest, KeepsWhatCouldBeReadAndWhatWasWrittenAfterAnyDamage) {
  int repairs = 0;
  for (unsigned seed = 0; seed < 400 && !HasFailure(); ++seed) {
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
      std::erase_if(expected,
                    [&](const auto& value) { return stored[value.first] != value.second; });
      ExpectValues(*store, expected);
      EXPECT_FALSE(FFolder.Has("x.cfg.sqlnew-journal"));
      std::filesystem::remove(File() + "-previous");
      ++repairs;
    };
    expectKept();
    for (const char* value : {"one", "two"}) {
      const TKey key = Key(FRandom() % kKeys);
      stored[key] = value;
      written.erase(key);
      if (store->TryWriteString(key.first, key.second, value)) written[key] = value;
      expectKept();
    }
    // Without a backup nobody can tell damaged definitions of the tables from those of others.
    EXPECT_TRUE(store->AttemptRepair() || !withBackup) << Lines();
    expectKept();
    ExpectValues(*store, written);
  }
  EXPECT_GT(repairs, 250);
}

// Each with a backup and without the tool, and the other way round.
TEST_F(TSqlIniRemainsTest, RepairsWhatOneDamageHasSpoilt) {
  const std::string noPage(kPage, '\x0f');
  const std::string emptyIndex("\x0a\0\0\0\0\x08\0\0", 8);
  const std::string sectionIndex = "sqlite_autoindex_SECTIONS_1";
  // What is inserted behind the back of the index, the pages or the place that get the bytes.
  using TCase =
      std::tuple<std::string, const char*, std::vector<std::string>, std::size_t, std::string>;
  const std::size_t column = FWhole.find("VALUE VARCHAR");
  const std::vector<TCase> cases = {
      {"an unknown file format", "", {}, 47, "\x09"},
      {"no such column", "", {}, column, "W"},
      {"a file that says it is read-only", "", {}, 18, "\x09"},
      {"names in the index alone", "", {"SECTIONS"}, 0, noPage},
      {"names nowhere", "", {"SECTIONS", sectionIndex}, 0, noPage},
      {"a section with two numbers", "", {sectionIndex}, 0, emptyIndex},
      {"a later row of a key", "('key1','later',NULL,999,2)", {}, 0, ""},
      {"a number that is none", "('key1','lost',NULL,999,'x')", {}, 0, ""},
  };
  for (const auto& [name, row, pages, offset, bytes] : cases) {
    const bool isOfNoStore = offset == 47 || offset == column;
    for (const bool withBackup : {true, false}) {
      SCOPED_TRACE(name + (withBackup ? ", with a backup" : ", without a backup"));
      PutInPlace(FWhole, withBackup, !withBackup);
      const std::string index = OverwriteRoot("sqlite_autoindex_DATA_1", emptyIndex);
      if (*row != '\0') Execute("INSERT INTO DATA VALUES" + std::string(row));
      OverwriteRoot("sqlite_autoindex_DATA_1", index);
      for (const std::string& page : pages) OverwriteRoot(page, bytes);
      if (pages.empty()) Overwrite(offset, bytes);
      const auto store = Open();
      if (isOfNoStore && !withBackup) {
        EXPECT_FALSE(store->AttemptRepair());
        EXPECT_FALSE(FFolder.Has("x.cfg-previous"));
        continue;
      }
      EXPECT_TRUE(store->TryWriteString("section1", "new", "v"));
      EXPECT_TRUE(store->AttemptRepair());
      EXPECT_EQ(store->ReadString("section1", "new", ""), "v");
      EXPECT_EQ(store->ReadString("gone", "k", "none"), withBackup ? "v" : "none");
      if (name == "names nowhere" && !withBackup) {
        EXPECT_EQ(store->ReadString("Recovered 3", "key2", ""), FStored[Key(2)]);
      } else {
        TValues expected = isOfNoStore ? FBackedUp : FStored;
        if (name == "a later row of a key") expected[Key(1)] = "later";
        ExpectValues(*store, expected);
      }
      EXPECT_EQ(Ask("PRAGMA integrity_check"), "ok");
    }
  }
  EXPECT_THAT(Lines(), testing::AllOf(HasSubstr("Trying to close and re-open the database."),
                                      HasSubstr("The damaged file is kept as ")));
}

}  // namespace
}  // namespace guardian
