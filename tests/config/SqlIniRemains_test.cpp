#include <random>

#include "config/SettingsStoreTest.h"

namespace guardian {
namespace {

using TKey = std::pair<std::string, std::string>;  // Of a section.
using TValues = std::map<TKey, std::string>;

constexpr std::size_t kPage = 2048;

// One whole store that is damaged, written to and repaired, over and over.
class TSqlIniRemainsTest : public TSettingsStoreTest {
 protected:
  TSqlIniRemainsTest() {
    for (int i = 0; i < 250; ++i) {
      const TKey key{"section" + std::to_string(i % 5), "key" + std::to_string(i)};
      FOld[key] = i % 50 == 0 ? std::string(3000, '\n') : "old" + std::to_string(i);
    }
    {
      const auto store = Open();
      Execute("PRAGMA journal_mode=WAL; PRAGMA synchronous=OFF");
      for (const auto& [key, value] : FOld) store->WriteString(key.first, key.second, value);
    }
    Execute("PRAGMA journal_mode=DELETE");
    FBackup = FFolder.Read("x.cfg");
    Execute("UPDATE DATA SET VALUE='new'||VALUE WHERE ID%3=0; INSERT INTO SECTIONS VALUES('s',9)");
    FWhole = FFolder.Read("x.cfg");
    FNew = ValuesIn(File());
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
    if (kind == 7 && FRandom() % 2 == 0) bytes.resize(FRandom() % bytes.size());
    if (kind == 7) change(bytes.data(), std::min<std::size_t>(bytes.size(), 100), 4);
    return bytes;
  }

  // What the look-ups of a store find in a file.
  [[nodiscard]] TValues ValuesIn(const std::string& file) const {
    TValues values;
    SQLite::Database database(file, SQLite::OPEN_READWRITE);
    const auto find = [&](const std::string& query) {
      return database.execAndGet(query).getString();
    };
    for (const auto& [key, old] : FOld) {
      try {
        const std::string id = find("SELECT ID FROM SECTIONS WHERE SECTIONNAME='" + key.first + "'");
        values[key] = find("SELECT coalesce(VALUE, BINVALUE) FROM DATA WHERE SECTIONID=" + id +
                           " AND NAME='" + key.second + "'");
      } catch (const SQLite::Exception&) {
        continue;
      }
    }
    return values;
  }

  TValues FOld;
  TValues FNew;
  std::string FBackup;
  std::string FWhole;
  std::mt19937 FRandom;
};

TEST_F(TSqlIniRemainsTest, KeepsWhatCouldBeReadAndWhatWasWrittenAfterAnyDamage) {
  const unsigned from = static_cast<unsigned>(std::getenv("SEED_FROM") ? atoi(std::getenv("SEED_FROM")) : 0);
  const unsigned to = static_cast<unsigned>(std::getenv("SEED_TO") ? atoi(std::getenv("SEED_TO")) : 400);
  int repairs = 0, readable = 0;
  for (unsigned seed = from; seed < to; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    FRandom.seed(seed);
    for (const char* name : {"x.cfg-journal", "x.cfg-previous", "CfgBackups/x.cfg.bak"}) {
      std::filesystem::remove(FFolder.Path(name));
    }
    if (seed % 2 == 0) FFolder.Write("CfgBackups/x.cfg.bak", FBackup);
    FFolder.Write("x.cfg", Damaged());
    std::unique_ptr<TKZSQLIniFile> store;
    TValues written;
    TValues stored = FNew;
    const auto check = [&](const char* what, const TValues& expected) {
      for (const auto& [key, value] : expected) {
        EXPECT_EQ(store->ReadString(key.first, key.second, "nothing"), value) << what << ' ' << key.first << ' ' << key.second;
      }
    };
    // What a repair leaves of a damaged file is what it was just before.
    const auto afterStep = [&](const TValues& changed) {
      const std::string previous = File() + "-previous";
      if (!std::filesystem::exists(previous)) return;
      TValues expected = changed;
      for (const auto& [key, value] : ValuesIn(previous)) {
        if (value == stored[key]) expected.emplace(key, value);
      }
      readable += static_cast<int>(expected.size());
      ++repairs;
      check("READ", expected);
      if (std::getenv("KEEP")) std::filesystem::copy_file(previous, std::string(std::getenv("KEEP")) + "/" + std::to_string(seed) + ".db", std::filesystem::copy_options::overwrite_existing);
      std::filesystem::remove(previous);
    };
    store = Open();
    afterStep({});
    for (int i = 0; i < 4; ++i) {
      const TKey key = std::next(FOld.begin(), static_cast<int>(FRandom() % FOld.size()))->first;
      const std::string value = "written" + std::to_string(i);
      const bool done = store->TryWriteString(key.first, key.second, value);
      written.erase(key);
      if (done) written[key] = stored[key] = value;
      afterStep(done ? TValues{{key, value}} : TValues{});
    }
    FClock.Advance(std::chrono::minutes(1));
    EXPECT_TRUE(store->AttemptRepair()) << Lines();
    afterStep({});
    check("ACK", written);
  }
  std::cerr << "repairs " << repairs << " readable " << readable << "\n";
}

}  // namespace
}  // namespace guardian
