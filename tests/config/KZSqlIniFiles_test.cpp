#include "config/KZSqlIniFiles.h"

#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "common/Exceptions.h"
#include "config/SettingsFolder.h"
#include "support/FakeClock.h"

namespace guardian {
namespace {

using std::string_literals::operator""s;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class TKZSQLIniFileTest : public testing::Test {
 protected:
  TSettingsFolder FFolder;
};

TEST_F(TKZSQLIniFileTest, MakesTheTablesOfANewFile) {
  std::ignore = FFolder.Open();
  EXPECT_EQ(FFolder.Ask("SELECT VersionNumber FROM DBVersion"), "101");
  EXPECT_EQ(FFolder.Ask("PRAGMA page_size"), "2048");
  EXPECT_EQ(FFolder.Ask("SELECT sql FROM sqlite_master WHERE name='SECTIONS'"),
            "CREATE TABLE SECTIONS\n(\n  SECTIONNAME VARCHAR(100) NOT NULL,\n"
            "  ID INTEGER PRIMARY KEY,\n  UNIQUE (SECTIONNAME)\n)");
  EXPECT_EQ(FFolder.Ask("SELECT sql FROM sqlite_master WHERE name='DATA'"),
            "CREATE TABLE DATA\n(\n  NAME VARCHAR(200) NOT NULL,\n  VALUE VARCHAR(100),\n"
            "  BINVALUE BLOB,\n  ID INTEGER PRIMARY KEY,\n  SECTIONID INTEGER NOT NULL,\n"
            "  UNIQUE (NAME,SECTIONID),\n  FOREIGN KEY (SECTIONID) REFERENCES SECTIONS(ID)"
            " ON UPDATE CASCADE ON DELETE CASCADE\n)");
}

TEST_F(TKZSQLIniFileTest, KeepsShortPrintableValuesAsTextAndAllOthersAsBytes) {
  struct TCase {
    const char* Name;
    std::string Value;
    bool AsText;
  };
  const std::vector<TCase> cases = {
      {"empty", "", true},
      {"100 characters", std::string(100, 'x'), true},
      {"101 characters", std::string(101, 'x'), false},
      {"blank and delete", " \x7f", true},
      {"below a blank", "a\x1f", false},
      {"tab", "a\tb", false},
      {"line break", "a\nb", false},
      {"zero byte", "a\0b"s, false},
      {"above 127", "\x80", false},
      {"quotes", "it's \"so\"", true},
      {"1 MiB", std::string(1'048'576, '\xfe'), false},
  };
  const auto store = FFolder.Open();
  for (const TCase& test : cases) {
    SCOPED_TRACE(test.Name);
    store->WriteString("s", "k", test.AsText ? "bytes\n" : "text");
    EXPECT_TRUE(store->TryWriteString("s", "k", test.Value));
    EXPECT_EQ(FFolder.Ask("SELECT (VALUE IS NULL)||(BINVALUE IS NULL) FROM DATA"),
              test.AsText ? "01" : "10");
    EXPECT_EQ(store->ReadString("s", "k", "default"), test.Value);
  }
  EXPECT_THAT(FFolder.Lines(), Not(HasSubstr("Exception")));
}

TEST_F(TKZSQLIniFileTest, KeepsAwkwardNamesApart) {
  const std::vector<std::string> names = {"",
                                          "it's",
                                          "\"q\"",
                                          "a\nb",
                                          "[x]",
                                          "A",
                                          "a",
                                          "'; DROP TABLE DATA;--",
                                          "\xff\xfe",
                                          "%s",
                                          ":SECTIONID",
                                          "\xc3\xa4",
                                          " a",
                                          "a=b",
                                          std::string(100'000, 'n')};
  const auto store = FFolder.Open();
  for (const std::string& name : names) {
    store->WriteString(name, "key", name + "1");
    store->WriteString("section", name, name + "2");
  }
  for (const std::string& name : names) {
    EXPECT_EQ(store->ReadString(name, "key", "default"), name + "1");
    EXPECT_EQ(store->ReadString("section", name, "default"), name + "2");
  }
  std::vector<std::string> sections = names;
  sections.insert(sections.begin() + 1, "section");
  EXPECT_EQ(store->ReadSections(), sections);
  EXPECT_EQ(store->CountKeys("section"), static_cast<std::int64_t>(names.size()));
}

TEST_F(TKZSQLIniFileTest, RefusesNamesWithAZeroByteInAFailureLine) {
  const auto store = FFolder.Open();
  EXPECT_FALSE(store->TryWriteString("s\0t"s, "k", "v"));
  EXPECT_FALSE(store->TryWriteString("s", "k\0l"s, "v"));
  EXPECT_EQ(store->ReadString("s\0t"s, "k", "default"), "default");
  EXPECT_EQ(store->CountKeys(), 0);
  EXPECT_THAT(FFolder.Lines(), HasSubstr("TKZSQLIniFile.WriteString Exception: A name must not "
                                         "hold a zero byte. (" +
                                         FFolder.File() + ")"));
  EXPECT_THAT(FFolder.Lines(), Not(HasSubstr("etrying")));
}

TEST_F(TKZSQLIniFileTest, ListsSectionsAndKeys) {
  const auto store = FFolder.Open();
  EXPECT_THAT(store->ReadSections(), IsEmpty());
  store->WriteString("beta", "2", "two");
  store->WriteString("alpha", "b", "x\ny");
  store->WriteString("beta", "10", "ten");
  EXPECT_THAT(store->ReadSections(), ElementsAre("beta", "alpha"));
  EXPECT_THAT(store->ReadSection("beta"), ElementsAre("10", "2"));
  EXPECT_THAT(store->ReadSectionValues("beta"), ElementsAre("10=ten", "2=two"));
  EXPECT_THAT(store->ReadSectionValues("alpha"), ElementsAre("b=x\ny"));
  EXPECT_THAT(store->ReadSection("gamma"), IsEmpty());
  EXPECT_TRUE(store->ValueExists("beta", "2"));
  EXPECT_FALSE(store->ValueExists("alpha", "2"));
  EXPECT_EQ(store->CountKeys(), 3);
  EXPECT_EQ(store->CountKeys("beta"), 2);
}

TEST_F(TKZSQLIniFileTest, KeepsTheSectionOfDeletedKeysWithoutListingIt) {
  const auto store = FFolder.Open();
  store->WriteString("one", "a", "1");
  store->WriteString("one", "b", "2");
  store->WriteString("two", "a", "3");
  const auto id = store->GetSectionID("one", TSectionCreation::No);
  store->DeleteKey("one", "a");
  store->DeleteKey("none", "a");
  EXPECT_THAT(store->ReadSection("one"), ElementsAre("b"));
  store->EraseSection("one");
  EXPECT_THAT(store->ReadSections(), ElementsAre("two"));
  EXPECT_EQ(store->ReadString("two", "a", ""), "3");
  ASSERT_TRUE(id);
  EXPECT_EQ(store->GetSectionName(*id), "one");
  EXPECT_EQ(store->GetSectionID("one", TSectionCreation::IfMissing), id);
  EXPECT_EQ(store->GetSectionID("none", TSectionCreation::No), std::nullopt);
  EXPECT_EQ(store->GetSectionName(99), std::nullopt);
}

TEST_F(TKZSQLIniFileTest, ShowsWhatAnotherStoreHasWritten) {
  const auto one = FFolder.Open();
  const auto two = FFolder.Open();
  one->WriteString("s", "k", "1");
  EXPECT_THAT(two->ReadSections(), ElementsAre("s"));
  one->WriteString("t", "k", "2");
  EXPECT_THAT(two->ReadSections(), ElementsAre("s", "t"));
  two->DeleteKey("s", "k");
  EXPECT_THAT(two->ReadSections(), ElementsAre("t"));
  EXPECT_THAT(one->ReadSections(), ElementsAre("t"));
}

TEST_F(TKZSQLIniFileTest, WaitsForAnotherWriter) {
  const auto store = FFolder.Open();
  SQLite::Database other(FFolder.File(), SQLite::OPEN_READWRITE);
  other.exec("BEGIN EXCLUSIVE");
  std::thread release([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    other.exec("COMMIT");
  });
  EXPECT_TRUE(store->TryWriteString("s", "k", "v"));
  release.join();
  EXPECT_THAT(FFolder.Lines(), Not(HasSubstr("Exception")));
}

TEST_F(TKZSQLIniFileTest, ReadsButNeverWritesAReadOnlyStore) {
  EXPECT_EQ(FFolder.Open(TSqlIniAccess::ReadOnly)->ReadString("s", "k", "d"), "d");
  EXPECT_FALSE(FFolder.Folder.Has("x.cfg"));
  FFolder.Open()->WriteString("s", "k", "v");
  const auto store = FFolder.Open(TSqlIniAccess::ReadOnly);
  EXPECT_FALSE(store->TryWriteString("s", "k", "w"));
  store->DeleteKey("s", "k");
  store->EraseSection("s");
  store->UpdateFile();
  EXPECT_EQ(store->GetSectionID("t", TSectionCreation::IfMissing), std::nullopt);
  EXPECT_EQ(store->ReadString("s", "k", "d"), "v");
}

TEST_F(TKZSQLIniFileTest, EditsByForceWithoutLosingANewKey) {
  const auto store = FFolder.Open();
  store->ForceEdit(TSqlIniEdit::Forced);
  store->WriteString("s", "k", "1");
  store->WriteString("s", "k", "2");
  EXPECT_THAT(store->ReadSectionValues("s"), ElementsAre("k=2"));
}

TEST_F(TKZSQLIniFileTest, CommitsEachWriteAndRemembersWhen) {
  TFakeClock clock;
  TKZSQLIniFile store(FFolder.File(), TSqlIniAccess::ReadWrite, clock);
  EXPECT_EQ(store.LastCommitAt(), 0);
  clock.Advance(std::chrono::minutes(1));
  store.WriteString("s", "k", "v");
  EXPECT_EQ(store.LastCommitAt(), clock.Now());
  store.CommitNow();
  store.UpdateFile();
  EXPECT_EQ(FFolder.Ask("SELECT VALUE FROM DATA"), "v");
}

TEST_F(TKZSQLIniFileTest, RaisesInEveryOperationWithoutComponents) {
  const auto store = FFolder.Open();
  store->DestroyComponents();
  const std::vector<std::pair<std::string, std::function<void()>>> cases = {
      {"WriteString", [&] { store->WriteString("s", "k", "v"); }},
      {"ReadString", [&] { std::ignore = store->ReadString("s", "k", "d"); }},
      {"DeleteKey", [&] { store->DeleteKey("s", "k"); }},
      {"EraseSection", [&] { store->EraseSection("s"); }},
      {"ReadSection", [&] { std::ignore = store->ReadSection("s"); }},
      {"ReadSections", [&] { std::ignore = store->ReadSections(); }},
      {"ReadSectionValues", [&] { std::ignore = store->ReadSectionValues("s"); }},
      {"ValueExists", [&] { std::ignore = store->ValueExists("s", "k"); }},
      {"UpdateFile", [&] { store->UpdateFile(); }},
      {"CommitNow", [&] { store->CommitNow(); }},
  };
  for (const auto& [name, operation] : cases) {
    try {
      operation();
      ADD_FAILURE() << name << " did not raise";
    } catch (const KZException& error) {
      EXPECT_EQ(error.Message(), "SQLIni nil in " + name);
    }
  }
  store->CreateComponents();
  EXPECT_TRUE(store->TryWriteString("s", "k", "v"));
  store->DestroyComponents();
}

}  // namespace
}  // namespace guardian
