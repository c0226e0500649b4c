#include <gmock/gmock.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "config/KZSqlIniFiles.h"
#include "config/SettingsFolder.h"
#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/Program.h"

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
#define KZ_SANITIZED 1
#else
#define KZ_SANITIZED 0
#endif

namespace guardian {
namespace {

using TInstant = std::chrono::steady_clock::time_point;

// A sanitized build does in the time what it can.
constexpr bool kSanitized = KZ_SANITIZED != 0;
constexpr auto kMostTime = std::chrono::seconds(40);

TInstant Now() { return std::chrono::steady_clock::now(); }

// Says on standard output, which is a file, what has been written; one call, so that a kill leaves
// no half line.
void Report(const std::string& key, const std::string& value) {
  const std::string line = "+ " + key + " " + value + "\n";
  if (::write(STDOUT_FILENO, line.data(), line.size()) < 0) std::abort();
}

// The last value of each key that was reported. Whatever else the program has said is a failure.
std::map<std::string, std::string> Reported(const TProgram& program) {
  std::map<std::string, std::string> values;
  std::istringstream lines(program.Output());
  std::string line;
  while (std::getline(lines, line)) {
    const std::size_t blank = line.rfind(' ');
    if (line.rfind("+ ", 0) == 0) {
      values[line.substr(2, blank - 2)] = line.substr(blank + 1);
    } else {
      EXPECT_THAT(line, testing::Not(testing::HasSubstr("Exception")));
    }
  }
  return values;
}

// Each thread writes new keys, and new values over a key of its own and one that all share. Two
// threads share a store; two have one each.
int WriteAtOnce(const std::vector<std::string>& arguments) {
  const TInstant end = Now() + std::chrono::seconds(std::stoi(arguments[2]));
  TKZSQLIniFile shared(arguments[0]);
  const auto write = [&](TKZSQLIniFile& store, const std::string& name) {
    for (int i = 0; Now() < end; ++i) {
      const std::string number = std::to_string(i);
      const std::string key = i % 2 == 0 ? name : name + "-" + number;
      if (store.TryWriteString("section" + std::to_string(i % 5), key, number)) {
        Report("section" + std::to_string(i % 5) + "/" + key, number);
      }
      store.WriteString("shared", "key", name + number);
      if (store.ReadString("shared", "key", "").empty()) Report("shared", "lost");
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      const std::string name = arguments[1] + std::to_string(i);
      if (i < 2) return write(shared, name);
      TKZSQLIniFile own(arguments[0]);
      write(own, name);
    });
  }
  for (std::thread& thread : threads) thread.join();
  return 0;
}
const TRegisterChild kWriteAtOnce("SqlIniWriteAtOnce", WriteAtOnce);

TEST(TKZSQLIniSlowTest, LosesNoWriteOfFourProcessesWithFourThreads) {
  const TSettingsFolder folder;
  std::vector<std::unique_ptr<TProgram>> writers;
  for (const char* name : {"a", "b", "c", "d"}) {
    writers.push_back(std::make_unique<TProgram>(std::vector<std::string>{
        "/proc/self/exe", "--child", "SqlIniWriteAtOnce", folder.File(), name, "20"}));
  }
  for (const auto& writer : writers) EXPECT_EQ(writer->Wait(std::chrono::seconds(90)), 0);
  std::size_t count = 0;
  const auto store = folder.Open();
  for (const auto& writer : writers) {
    for (const auto& [name, value] : Reported(*writer)) {
      const std::size_t slash = name.find('/');
      ASSERT_NE(slash, std::string::npos) << name << " " << value;
      EXPECT_EQ(store->ReadString(name.substr(0, slash), name.substr(slash + 1), ""), value);
      ++count;
    }
  }
  EXPECT_GT(count, 100U);
  EXPECT_EQ(folder.Ask("PRAGMA integrity_check"), "ok");
  std::printf("%zu keys\n", count);
}

int WriteUntilKilled(const std::vector<std::string>& arguments) {
  TKZSQLIniFile store(arguments[0]);
  const int first = std::stoi(arguments[1]);
  for (int i = first; i < first + 100'000; ++i) {
    const std::string key = "key" + std::to_string(i % 20);
    // Of both kinds, and long enough for pages of their own.
    const std::string number = std::to_string(i) + (i % 3 == 0 ? std::string(3000, '.') : "");
    if (!store.TryWriteString("s" + std::to_string(i / 50), key, number)) return 1;
    Report("s" + std::to_string(i / 50) + "/" + key, number);
  }
  return 0;
}
const TRegisterChild kWriteUntilKilled("SqlIniWriteUntilKilled", WriteUntilKilled);

// Kills a writer at the moment, and returns what it had reported as written.
std::map<std::string, std::string> KillWriter(const std::string& file, int round,
                                              std::chrono::microseconds moment) {
  TProgram writer({"/proc/self/exe", "--child", "SqlIniWriteUntilKilled", file,
                   std::to_string(round * 100'000)});
  EXPECT_TRUE(Eventually([&] { return writer.Output().find("+ ") != std::string::npos; }));
  std::this_thread::sleep_for(moment);
  writer.Signal(SIGKILL);
  EXPECT_EQ(writer.Wait(), -SIGKILL);
  return Reported(writer);
}

TEST(TKZSQLIniSlowTest, KeepsEveryReportedValueOfAWriterThatIsKilled) {
  const TSettingsFolder folder;
  std::mt19937 random(1);
  std::uniform_int_distribution<int> moment(0, 40'000);
  const TInstant end = Now() + kMostTime;
  int kills = 0;
  while (kills < 200 && (!kSanitized || Now() < end)) {
    const auto reported =
        KillWriter(folder.File(), kills++, std::chrono::microseconds(moment(random)));
    const auto store = folder.Open();
    for (const auto& [name, value] : reported) {
      const std::size_t slash = name.find('/');
      const std::string found =
          store->ReadString(name.substr(0, slash), name.substr(slash + 1), "0");
      // One more may have been written than was reported.
      ASSERT_GE(std::stoi(found), std::stoi(value)) << name;
      ASSERT_EQ(found.size() > 1000, std::stoi(found) % 3 == 0) << name;
    }
  }
  std::printf("%d kills\n", kills);
  EXPECT_GE(kills, kSanitized ? 5 : 200);
  EXPECT_EQ(folder.Ask("PRAGMA integrity_check"), "ok");
  EXPECT_THAT(folder.Lines(), testing::Not(testing::HasSubstr("Exception")));
}

class TBitFlips : public TSettingsFolder {
 public:
  TBitFlips() {
    std::ignore = Open();
    Run("PRAGMA synchronous=OFF; INSERT INTO SECTIONS VALUES('s',1),('t',2);"
        "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i+1 FROM n WHERE i<199)"
        "INSERT INTO DATA SELECT 'key'||i,'value'||i,NULL,i+1,1+i%2 FROM n");
    FWhole = Folder.Read("x.cfg");
    std::filesystem::remove_all(Folder.Path("CfgBackups"));
  }

  void Flip(unsigned seed) const {
    std::mt19937 random(seed);
    std::string bytes = FWhole;
    const auto flips = 1 + random() % 20;
    // Half of them hit one page.
    const auto from = random() % 2 == 0 ? 0 : 2048 * (random() % (bytes.size() / 2048));
    const auto range = from == 0 ? bytes.size() : 2048;
    for (unsigned i = 0; i < flips; ++i) {
      char& byte = bytes[from + random() % range];
      byte = static_cast<char>(byte ^ (1 << random() % 8));
    }
    for (const char* old : {"x.cfg-journal", "x.cfg-previous"}) {
      std::filesystem::remove(Folder.Path(old));
    }
    Folder.Write("x.cfg", bytes);
  }

  // The values that are there, whole and where they belong.
  [[nodiscard]] int Readable(TKZSQLIniFile& store) const {
    int readable = 0;
    for (int i = 0; i < 200; ++i) {
      const std::string number = std::to_string(i);
      readable += store.ReadString(i % 2 == 0 ? "s" : "t", "key" + number, "") == "value" + number;
    }
    return readable;
  }

 private:
  std::string FWhole;
};

// Whatever is flipped: no crash, a clear line, and after a repair all that the backup has.
TEST(TKZSQLIniSlowTest, SurvivesFlippedBits) {
  const TBitFlips folder;
  const TInstant end = Now() + kMostTime;
  int damaged = 0;
  unsigned seed = 0;
  for (; seed < 250 && Now() < end; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    folder.Flip(seed);
    const auto store = folder.Open();
    const int before = folder.Readable(*store);
    std::ignore = store->ReadSections();
    std::ignore = store->ReadSectionValues("s");
    if (!store->TryWriteString("s", "new", "v")) {
      EXPECT_THAT(folder.Lines(), testing::HasSubstr(" Exception: "));
      continue;
    }
    EXPECT_EQ(store->ReadString("s", "new", ""), "v");
    if (!store->AttemptRepair()) continue;
    EXPECT_EQ(store->ReadString("s", "new", ""), "v");
    EXPECT_EQ(folder.Ask("PRAGMA integrity_check"), "ok");
    damaged += folder.Folder.Has("x.cfg-previous") ? 1 : 0;
    EXPECT_GE(folder.Readable(*store), before - 1);
  }
  std::printf("%u files, %d repaired\n", seed, damaged);
  EXPECT_GT(damaged, 10);
}

}  // namespace
}  // namespace guardian
