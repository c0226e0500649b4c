// Prints what things cost at growing sizes, a line for each point: the name, the size, the seconds
// of processor time of the calling thread, and the bytes of heap at the peak, above what was there
// before what is measured was made. scripts/growth runs it.

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <latch>
#include <ranges>
#include <string>
#include <thread>
#include <vector>

#include "CountedHeap.h"
#include "Measure.h"
#include "common/Cancellation.h"
#include "common/ErrorLog.h"
#include "config/KZSqlIniFiles.h"
#include "diagnostics/KZCheckpoints.h"
#include "guardian/DaemonProcess.h"
#include "guardian/RunCommand.h"
#include "support/TempFolder.h"

namespace guardian {
namespace {

void Must(bool succeeded) {
  if (!succeeded) std::abort();
}

// The heap of the C++ code and that of SQLite, from its making on.
class THeapGrowth {
 public:
  THeapGrowth() { ::sqlite3_memory_highwater(1); }
  [[nodiscard]] std::int64_t Peak() const {
    return HeapPeakBytes() + ::sqlite3_memory_highwater(0) - FBefore;
  }

 private:
  const std::int64_t FBefore = ResetHeapPeak() + ::sqlite3_memory_used();
};

// Prints the cost of a call: the median of several rounds, each of so many calls.
void Report(const char* name, int size, const THeapGrowth& heap, int calls,
            const std::function<void()>& work) {
  std::vector<double> seconds(21);
  for (double& round : seconds) {
    round = ProcessorSeconds([&] {
      for (int i = 0; i < calls; ++i) work();
    });
  }
  std::printf("%s %d %.9f %ld\n", name, size, Median(seconds) / calls, heap.Peak());
}

// The look at the process list without the time of ps and grep: every line names the daemon, and
// only the last one is the daemon.
void ProcessList(int lines) {
  const TTempFolder folder;
  folder.Write("ps",
               "#!/bin/sh\nseq -f 'root %.0f 1 0 12:00 ? 00:00:01 VellumarkCL /RUN --job=home'" +
                   (" 100002 " + std::to_string(100'000 + lines)) +
                   "\necho 'root 4711 1 0 12:00 ? 00:00:01 VellumarkCL'\n");
  std::filesystem::permissions(folder.Path("ps"), std::filesystem::perms::owner_all);
  const std::string path = std::getenv("PATH");
  ::setenv("PATH", (folder.Path() + ":" + path).c_str(), 1);
  const THeapGrowth heap;
  const TCancellation never;
  const auto shell = [&](const std::string& line, int timeoutSec) {
    return RunCommand(line, timeoutSec, never).Output;
  };
  TDaemonProcess daemon(
      shell, [](pid_t /*pid*/) { return false; }, SystemClock());
  Report("ProcessList", lines, heap, 1, [&] { Must(daemon.Check(TProcessCheck::Force)); });
  Must(daemon.Pid() == "4711");
  ::setenv("PATH", path.c_str(), 1);
}

// The report, and in memory also the records of the threads, but not their stacks.
void ThreadReport(int count) {
  const THeapGrowth heap;
  std::latch listed(count);
  std::latch end(1);
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&] {
      KZCP::Checkpoint("PipeRead:Sock#123456");
      listed.count_down();
      end.wait();
    });
  }
  listed.wait();
  Report("ThreadReport", count, heap, 1 + 2'000 / count,
         [] { benchmark::DoNotOptimize(KZCP::ThreadReport(KZCP::TReportHeader::With)); });
  end.count_down();
  for (std::thread& thread : threads) thread.join();
}

// A write and a read of one key where no disk hides our own code; the memory from before a store
// with these keys is opened.
void Keys(int keys) {
  const TTempFolder folder("/dev/shm");
  const auto section = [](int key) { return "section" + std::to_string(key / 100); };
  const auto name = [](int key) { return "key" + std::to_string(key % 100); };
  for (TKZSQLIniFile filled(folder.Path("x.cfg")); int key : std::views::iota(0, keys)) {
    Must(filled.TryWriteString(section(key), name(key), "value"));
  }
  const THeapGrowth heap;
  TKZSQLIniFile store(folder.Path("x.cfg"));
  int number = 0;
  Report("Keys", keys, heap, 500, [&] {
    const int key = ++number * 7'919 % keys;
    const std::string value = "new" + std::to_string(number);
    Must(store.TryWriteString(section(key), name(key), value));
    Must(store.ReadString(section(key), name(key), "") == value);
  });
}

}  // namespace
}  // namespace guardian

int main() {
  // Takes the lines about new files, which would stand among the figures.
  const guardian::TTempFolder folder;
  if (!guardian::ErrorLog().Open(folder.Path("errors.log"))) return 1;
  guardian::KZCP::Init();
  for (const int lines : {100, 300, 1'000, 3'000, 10'000, 30'000}) guardian::ProcessList(lines);
  for (const int count : {1, 4, 16, 64, 250, 500, 1'000}) guardian::ThreadReport(count);
  for (const int keys : {10, 100, 1'000, 5'000, 20'000, 100'000}) guardian::Keys(keys);
  guardian::KZCP::Fini();
  guardian::ErrorLog().Close();
}
