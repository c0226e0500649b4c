// Input: a byte whose lowest bit makes the store a read-only one, the bytes of the store's file.

#include <SQLiteCpp/SQLiteCpp.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Fuzz.h"
#include "common/ErrorLog.h"
#include "config/KZSqlIniFiles.h"
#include "support/FakeClock.h"
#include "support/TempFolder.h"

namespace guardian {
namespace {

// One store in a folder of its own, made anew for each input, and the log of its failure lines.
class TStoreFolder {
 public:
  TStoreFolder() { Require(ErrorLog().Open(FFolder.Path("errors.log")), "no error log"); }
  ~TStoreFolder() { ErrorLog().Close(); }
  TStoreFolder(const TStoreFolder&) = delete;
  TStoreFolder& operator=(const TStoreFolder&) = delete;

  void Begin(const std::string& content) {
    std::filesystem::remove_all(FFolder.Path("store"));
    std::filesystem::create_directory(FFolder.Path("store"));
    FFolder.Write("store/cfg", content);
    std::filesystem::resize_file(FFolder.Path("errors.log"), 0);
    // The failure lines of the input before may come again.
    Clock.Advance(std::chrono::hours(2));
  }

  [[nodiscard]] std::string Store() const { return FFolder.Path("store/cfg"); }
  [[nodiscard]] bool HasLines() const { return !FFolder.Read("errors.log").empty(); }
  [[nodiscard]] std::string Read(const std::string& name) const {
    return FFolder.Read("store/" + name);
  }

  // The names of all files in the store's folder and in those within.
  [[nodiscard]] std::set<std::string> Files() const {
    std::set<std::string> names;
    const std::filesystem::path folder = FFolder.Path("store");
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
      names.insert(entry.path().lexically_relative(folder).string());
    }
    return names;
  }

  TFakeClock Clock;

 private:
  const TTempFolder FFolder;
};

void ReadEverything(TKZSQLIniFile& store) {
  for (const std::string& section : store.ReadSections()) {
    const std::vector<std::string> values = store.ReadSectionValues(section);
    for (const std::string& key : store.ReadSection(section)) {
      [[maybe_unused]] const std::string value = store.ReadString(section, key, "");
    }
  }
}

void CheckReadOnly(TStoreFolder& folder, const std::string& content) {
  {
    TKZSQLIniFile store(folder.Store(), TSqlIniAccess::ReadOnly, folder.Clock);
    ReadEverything(store);
    Require(!store.TryWriteString("section", "key", "value"), "a read-only store takes a value");
    Require(store.OpenDatabase() || folder.HasLines(), "a store fails without a line");
  }
  Require(folder.Files() == std::set<std::string>{"cfg"}, "a read-only store leaves a file behind");
  Require(folder.Read("cfg") == content, "a read-only store changes its file");
}

// What SQLite itself may count up in the header of a file that it only opens: the journal mode, the
// change counter and what belongs to it.
std::string WithoutCounters(std::string file) {
  constexpr std::array<std::pair<std::size_t, std::size_t>, 3> kRanges = {
      {{18, 20}, {24, 32}, {92, 100}}};
  for (const auto& [from, to] : kRanges) {
    for (std::size_t i = from; i < std::min(to, file.size()); ++i) file[i] = '\0';
  }
  return file;
}

void CheckKept(const TStoreFolder& folder, const std::string& content) {
  const std::set<std::string> files = folder.Files();
  const std::vector<std::string> places = {"cfg", "cfg-previous", "CfgBackups/emptycfgfile.empty"};
  const bool kept = std::any_of(places.begin(), places.end(), [&](const std::string& name) {
    return files.contains(name) && WithoutCounters(folder.Read(name)) == WithoutCounters(content);
  });
  Require(kept, "the file that was there is lost");
}

void CheckFiles(const TStoreFolder& folder) {
  for (const std::string& name : folder.Files()) {
    Require(name.starts_with("cfg") || name.starts_with("CfgBackups"), "a strange file: " + name);
  }
}

// A new store is put together from rows alone: nothing else of a damaged file gets into it.
void CheckRepaired(const TStoreFolder& folder) {
  if (!folder.Files().contains("cfg-previous")) return;
  const SQLite::Database database(folder.Store(), SQLite::OPEN_READONLY);
  SQLite::Statement others(database,
                           "SELECT name FROM sqlite_master WHERE name NOT IN "
                           "('DBVersion', 'SECTIONS', 'DATA') AND name NOT LIKE 'sqlite_auto%'");
  Require(!others.executeStep(), "a repaired store has more than its tables");
}

void CheckReadWrite(TStoreFolder& folder, const std::string& content) {
  bool written = false;
  {
    TKZSQLIniFile store(folder.Store(), TSqlIniAccess::ReadWrite, folder.Clock);
    CheckKept(folder, content);
    ReadEverything(store);
    written = store.TryWriteString("section", "key", "value");
    Require(written || folder.HasLines(), "a write fails without a line");
  }
  TKZSQLIniFile store(folder.Store(), TSqlIniAccess::ReadWrite, folder.Clock);
  const bool found = store.ReadString("section", "key", "none") == "value";
  Require(found || !written || folder.HasLines(), "a value is gone without a line");
  CheckFiles(folder);
  CheckRepaired(folder);
  if (!store.AttemptRepair()) return;
  Require(!found || store.ReadString("section", "key", "none") == "value",
          "a repair loses a value");
  Require(SQLite::Database(folder.Store()).execAndGet("PRAGMA integrity_check").getString() == "ok",
          "a repaired store is damaged");
}

}  // namespace
}  // namespace guardian

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static guardian::TStoreFolder folder;
  guardian::TFuzzInput input(data, size);
  const bool readOnly = (input.Byte() & 1U) != 0;
  const std::string content(input.Rest());
  folder.Begin(content);
  if (readOnly) {
    guardian::CheckReadOnly(folder, content);
  } else {
    guardian::CheckReadWrite(folder, content);
  }
  return 0;
}
