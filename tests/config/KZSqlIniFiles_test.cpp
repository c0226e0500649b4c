#include <random>

#include "common/Thread.h"
#include "config/SettingsStoreTest.h"
#include "diagnostics/KZCheckpoints.h"

namespace guardian {
namespace {

using std::string_literals::operator""s;

class TKZSQLIniFileTest : public TSettingsStoreTest {};

TEST_F(TKZSQLIniFileTest, KeepsShortPrintableValuesAsTextAndAllOthersAsBytes) {
  const std::vector<std::pair<std::string, bool>> cases = {{"", true},
                                                           {std::string(100, 'x'), true},
                                                           {std::string(101, 'x'), false},
                                                           {" \x7f", true},
                                                           {"a\x1f", false},
                                                           {"a\0b"s, false},
                                                           {"\x80", false}};
  const auto store = Open();
  for (const auto& [value, asText] : cases) {
    SCOPED_TRACE(std::to_string(value.size()) + " bytes: " + value.substr(0, 10));
    store->WriteString("s", "k", asText ? "bytes\n" : "text");
    EXPECT_TRUE(store->TryWriteString("s", "k", value));
    EXPECT_EQ(Ask("SELECT (VALUE IS NULL)||(BINVALUE IS NULL) FROM DATA"), asText ? "01" : "10");
    EXPECT_TRUE(store->ReadString("s", "k", "default") == value);
  }
  EXPECT_EQ(KZCP::CurrentCP(CurrentThreadId()), "SqlIni.LeftOK");
}

TEST_F(TKZSQLIniFileTest, RefusesWhatItCannotStoreInAFailureLineWithoutRetrying) {
  const auto store = Open();
  EXPECT_FALSE(store->TryWriteString("s\0t"s, "k", "v"));
  EXPECT_FALSE(store->TryWriteString("s", "k\0l"s, "v"));
  EXPECT_EQ(store->ReadString("s\0t"s, "k", "default"), "default");
  // Refused for its length alone, so that no byte of it is read.
  EXPECT_FALSE(store->TryWriteString("s", "k", std::string_view("v", 1'000'000'001)));
  EXPECT_EQ(store->CountKeys(), 0);
  const std::string failure = " TKZSQLIniFile.WriteString Exception: ";
  const std::string file = " (" + File() + ")\n";
  EXPECT_THAT(Lines(), HasSubstr(failure + "A name must not hold a zero byte." + file));
  EXPECT_THAT(Lines(), HasSubstr(failure + "A value is too long." + file));
  EXPECT_THAT(Lines(), Not(HasSubstr("etrying")));
}

// Random operations of two stores on one file, and maps that say what must be in it.
class TStoreModelTest : public TKZSQLIniFileTest {
 protected:
  void Step() {
    std::unique_ptr<TKZSQLIniFile>& store = FStores[FRandom() % 2];
    const std::string section = AnyName();
    const std::string key = AnyName();
    const auto kind = FRandom() % 16;
    FClock.Advance(std::chrono::minutes(1));
    if (kind == 0) {
      store->EraseSection(section);
      FKeys[section].clear();
    } else if (kind < 4) {
      store->DeleteKey(section, key);
      FKeys[section].erase(key);
    } else if (kind == 4) {
      store->CommitNow();
      store->UpdateFile();
      store->CloseDatabase();
    } else if (kind == 5) {
      store->DestroyComponents();
      EXPECT_EQ(ThrownMessage([&] { store->UpdateFile(); }), "SQLIni nil in UpdateFile");
      store->CreateComponents();
    } else if (kind == 6) {
      store = Open();
      EXPECT_TRUE(store->AttemptRepair());
    } else {
      if (kind < 9) store->ForceEdit(kind == 7 ? TSqlIniEdit::Forced : TSqlIniEdit::LookFirst);
      FSections[store->GetSectionID(section, TSectionCreation::IfMissing).value()] = section;
      if (kind == 9) return;
      EXPECT_TRUE(store->TryWriteString(section, key, FKeys[section][key] = AnyValue()));
      EXPECT_EQ(store->LastCommitAt(), FClock.Now());
    }
  }

  void Check(TKZSQLIniFile& store) {
    std::vector<std::string> sections;
    std::int64_t count = 0;
    for (const auto& [id, section] : FSections) {
      EXPECT_EQ(store.GetSectionID(section, TSectionCreation::No), id);
      EXPECT_EQ(store.GetSectionName(id), section);
      std::vector<std::string> keys;
      std::vector<std::string> lines;
      for (const auto& [key, value] : FKeys[section]) {
        keys.push_back(key);
        lines.push_back(std::string(key).append("=").append(value));
        EXPECT_EQ(store.ReadString(section, key, "default"), value);
      }
      EXPECT_EQ(store.ReadSection(section), keys);
      EXPECT_EQ(store.ReadSectionValues(section), lines);
      EXPECT_EQ(store.CountKeys(section), static_cast<std::int64_t>(keys.size()));
      EXPECT_EQ(store.ValueExists(section, "a"), FKeys[section].contains("a"));
      if (!keys.empty()) sections.push_back(section);
      count += static_cast<std::int64_t>(keys.size());
    }
    EXPECT_EQ(store.ReadSections(), sections);
    EXPECT_EQ(store.CountKeys(), count);
    EXPECT_FALSE(store.GetSectionName(99) || store.GetSectionID("none", TSectionCreation::No));
  }

  std::string AnyName() {
    static const std::vector<std::string> names = {
        "",           "A",       "a", " a", "a=b", "it's \"q\"\n", "'; DROP TABLE DATA;--",
        ":SECTIONID", "\xff\xfe"};
    const auto index = FRandom() % 10;
    return index < names.size() ? names[index] : std::string(3000, 'n');
  }

  std::string AnyValue() {
    std::string value(FRandom() % 4 == 0 ? FRandom() % 5000 : 98 + FRandom() % 5, 'v');
    if (!value.empty() && FRandom() % 2 == 0) value.back() = static_cast<char>(FRandom() % 256);
    return value;
  }

  std::mt19937 FRandom{1};
  std::array<std::unique_ptr<TKZSQLIniFile>, 2> FStores = {Open(), Open()};
  std::map<std::int64_t, std::string> FSections;
  std::map<std::string, std::map<std::string, std::string>> FKeys;
};

TEST_F(TStoreModelTest, HoldsWhatWasWrittenAfterAnyOperationsOfTwoStores) {
  for (int step = 0; step < 120 && !HasFailure(); ++step) {
    SCOPED_TRACE("seed 1, step " + std::to_string(step));
    Step();
    Check(*FStores[FRandom() % 2]);
  }
  const auto readOnly = Open(TSqlIniAccess::ReadOnly);
  EXPECT_FALSE(readOnly->TryWriteString("", "a", "b") || readOnly->AttemptRepair());
  for (const auto& [id, section] : FSections) readOnly->EraseSection(section);
  Check(*readOnly);
  EXPECT_EQ(Ask("PRAGMA integrity_check"), "ok");
  EXPECT_EQ(Ask("SELECT VersionNumber FROM DBVersion"), "101");
  EXPECT_EQ(Ask("PRAGMA page_size"), "2048");
  EXPECT_THAT(Lines(), Not(HasSubstr("Exception")));
}

TEST_F(TKZSQLIniFileTest, WaitsForOtherConnectionsForTenSecondsATry) {
  const auto store = Open();
  SQLite::Database other(File(), SQLite::OPEN_READWRITE);
  other.exec("BEGIN IMMEDIATE");
  for (const char* key : {"k", "l"}) {
    const std::int64_t start = FClock.TickCount();
    EXPECT_FALSE(store->TryWriteString("s", key, "v"));
    EXPECT_NEAR(static_cast<double>(FClock.TickCount() - start), 30'000, 100);
  }
  other.exec("COMMIT");
  EXPECT_TRUE(store->TryWriteString("s", "k", "v"));
  const std::string retrying = "etrying the failed operation (WriteString, " + File() + ")";
  EXPECT_THAT(Lines(), HasSubstr("R" + retrying + "\n"));
  EXPECT_THAT(Lines(), HasSubstr("NOT r" + retrying + " after 3 attempts.\n"));
}

}  // namespace
}  // namespace guardian
