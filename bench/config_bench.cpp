#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <string>

#include "Measure.h"
#include "common/ErrorLog.h"
#include "config/KZSqlIniFiles.h"
#include "support/TempFolder.h"

namespace guardian {
namespace {

constexpr int kSections = 1'000;
constexpr int kKeysPerSection = 100;

int SectionCount() { return Rounds(kSections, 10); }

void Must(bool succeeded) {
  if (!succeeded) std::abort();
}

// SQLite's C interface, with the settings and the statements of a store.
class TBareStore {
 public:
  explicit TBareStore(const std::string& file) {
    Must(::sqlite3_open_v2(file.c_str(), &FConnection, SQLITE_OPEN_READWRITE, nullptr) ==
         SQLITE_OK);
    ::sqlite3_busy_timeout(FConnection, 10'000);
    for (const char* pragma :
         {"PRAGMA foreign_keys=0", "PRAGMA journal_mode=TRUNCATE", "PRAGMA synchronous=FULL"}) {
      Must(::sqlite3_exec(FConnection, pragma, nullptr, nullptr, nullptr) == SQLITE_OK);
    }
    FSectionByName = Prepare("SELECT ID FROM SECTIONS WHERE (SECTIONNAME=:SECTIONNAME)");
    FValueRead = Prepare("SELECT * FROM DATA WHERE (SECTIONID=:SECTIONID) AND (NAME=:NAME)");
    FUpdate = Prepare("UPDATE DATA SET VALUE=?, BINVALUE=NULL WHERE SECTIONID=? AND NAME=?");
    FBegin = Prepare("BEGIN");
    FBeginWrite = Prepare("BEGIN IMMEDIATE");
    FCommit = Prepare("COMMIT");
  }
  ~TBareStore() {
    for (auto* statement : {FSectionByName, FValueRead, FUpdate, FBegin, FBeginWrite, FCommit}) {
      ::sqlite3_finalize(statement);
    }
    ::sqlite3_close(FConnection);
  }
  TBareStore(const TBareStore&) = delete;
  TBareStore& operator=(const TBareStore&) = delete;

  std::string Read(const std::string& section, const std::string& key) {
    Run(FBegin);
    Must(StepToRow(Section(section), key));
    std::string value = Value();
    ::sqlite3_reset(FValueRead);
    Run(FCommit);
    return value;
  }

  void Write(const std::string& section, const std::string& key, const std::string& value) {
    Run(FBeginWrite);
    const std::int64_t id = Section(section);
    Must(StepToRow(id, key));
    ::sqlite3_reset(FValueRead);
    BindText(FUpdate, 1, value);
    ::sqlite3_bind_int64(FUpdate, 2, id);
    BindText(FUpdate, 3, key);
    Run(FUpdate);
    Must(StepToRow(id, key) && Value() == value);
    ::sqlite3_reset(FValueRead);
    Run(FCommit);
  }

 private:
  sqlite3_stmt* Prepare(const char* text) {
    sqlite3_stmt* statement = nullptr;
    Must(::sqlite3_prepare_v2(FConnection, text, -1, &statement, nullptr) == SQLITE_OK);
    return statement;
  }
  static void BindText(sqlite3_stmt* statement, int index, const std::string& text) {
    ::sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()),
                        SQLITE_STATIC);
  }
  static void Run(sqlite3_stmt* statement) {
    Must(::sqlite3_step(statement) == SQLITE_DONE);
    ::sqlite3_reset(statement);
  }
  std::int64_t Section(const std::string& name) {
    BindText(FSectionByName, 1, name);
    Must(::sqlite3_step(FSectionByName) == SQLITE_ROW);
    const std::int64_t id = ::sqlite3_column_int64(FSectionByName, 0);
    ::sqlite3_reset(FSectionByName);
    return id;
  }
  // Of the row that was stepped to.
  std::string Value() {
    const auto* text = static_cast<const char*>(::sqlite3_column_blob(FValueRead, 1));
    return {text, static_cast<std::size_t>(::sqlite3_column_bytes(FValueRead, 1))};
  }
  bool StepToRow(std::int64_t section, const std::string& key) {
    ::sqlite3_bind_int64(FValueRead, 1, section);
    BindText(FValueRead, 2, key);
    return ::sqlite3_step(FValueRead) == SQLITE_ROW;
  }

  sqlite3* FConnection = nullptr;
  sqlite3_stmt* FSectionByName = nullptr;
  sqlite3_stmt* FValueRead = nullptr;
  sqlite3_stmt* FUpdate = nullptr;
  sqlite3_stmt* FBegin = nullptr;
  sqlite3_stmt* FBeginWrite = nullptr;
  sqlite3_stmt* FCommit = nullptr;
};

std::string SectionName(int number) { return "section" + std::to_string(number); }
std::string KeyName(int number) { return "key" + std::to_string(number); }

// A settings file of full size.
std::string MakeFile(const TTempFolder& folder, const std::string& name) {
  const std::string file = folder.Path(name);
  { const TKZSQLIniFile store(file); }
  sqlite3* connection = nullptr;
  Must(::sqlite3_open(file.c_str(), &connection) == SQLITE_OK);
  const std::string fill =
      "PRAGMA synchronous=OFF; BEGIN;"
      "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i+1 FROM n WHERE i<" +
      std::to_string(SectionCount() - 1) +
      ") INSERT INTO SECTIONS SELECT 'section'||i, i+1 FROM n;"
      "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i+1 FROM n WHERE i<" +
      std::to_string(kKeysPerSection - 1) +
      ") INSERT INTO DATA (NAME, VALUE, SECTIONID) SELECT 'key'||i, 'value'||i, ID "
      "FROM SECTIONS, n; COMMIT;";
  Must(::sqlite3_exec(connection, fill.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK);
  ::sqlite3_close(connection);
  return file;
}

// Ours and bare, each with a file of its own.
struct TStores {
  TTempFolder Folder;
  TKZSQLIniFile Ours{MakeFile(Folder, "ours.cfg")};
  TBareStore Bare{MakeFile(Folder, "bare.cfg")};
};

template <typename TWork>
void ForSomeKeys(int count, const TWork& work) {
  for (int i = 0; i < count; ++i) {
    work(SectionName(i * 7 % SectionCount()), KeyName(i * 31 % kKeysPerSection));
  }
}

void WriteString(benchmark::State& state, const char* folder, int writes, TTime* time) {
  TStores stores{.Folder = TTempFolder(folder)};
  // Never the value that is there already: SQLite writes nothing for it.
  int number = 0;
  const auto ours = [&](const std::string& section, const std::string& key) {
    Must(stores.Ours.TryWriteString(section, key, "new" + std::to_string(++number)));
  };
  const auto bare = [&](const std::string& section, const std::string& key) {
    stores.Bare.Write(section, key, "new" + std::to_string(++number));
  };
  CompareRates(
      state, writes, [&] { ForSomeKeys(writes, ours); }, [&] { ForSomeKeys(writes, bare); }, time);
}
// On a disk, where the syncs of a commit take the time; and in processor time without a disk, where
// all that is ours shows most.
BENCHMARK_CAPTURE(WriteString, disk, "/tmp", Rounds(40, 2), Seconds)
    ->UseManualTime()
    ->Iterations(Rounds(15));
BENCHMARK_CAPTURE(WriteString, memory, "/dev/shm", Rounds(2'000, 20), ProcessorSeconds)
    ->UseManualTime()
    ->Iterations(Rounds(15));

// In processor time: a read waits for nothing.
void ReadString(benchmark::State& state) {
  const int reads = Rounds(20'000, 50);
  TStores stores;
  const auto ours = [&](const std::string& section, const std::string& key) {
    Must(!stores.Ours.ReadString(section, key, "").empty());
  };
  const auto bare = [&](const std::string& section, const std::string& key) {
    Must(!stores.Bare.Read(section, key).empty());
  };
  CompareRates(
      state, reads, [&] { ForSomeKeys(reads, ours); }, [&] { ForSomeKeys(reads, bare); },
      &ProcessorSeconds);
}
BENCHMARK(ReadString)->UseManualTime()->Iterations(Rounds(15));

// From nothing to the first value read.
void OpenFile(benchmark::State& state) {
  const TTempFolder folder;
  const std::string file = MakeFile(folder, "x.cfg");
  ReportTimes(state, Compare(
                         state,
                         [&] {
                           return Seconds([&] {
                             TKZSQLIniFile store(file);
                             Must(store.ReadString(SectionName(1), KeyName(1), "") == "value1");
                           });
                         },
                         [&] {
                           return Seconds([&] {
                             TBareStore store(file);
                             Must(store.Read(SectionName(1), KeyName(1)) == "value1");
                           });
                         }));
}
BENCHMARK(OpenFile)->UseManualTime()->Iterations(Rounds(30))->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace guardian

int main(int argc, char** argv) {
  // Takes the lines about new files, which would stand among the figures.
  guardian::TTempFolder folder;
  if (!guardian::ErrorLog().Open(folder.Path("errors.log"))) return 1;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  guardian::ErrorLog().Close();
}
