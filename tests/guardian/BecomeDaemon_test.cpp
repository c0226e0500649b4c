#include <gmock/gmock.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "common/Console.h"
#include "common/Settings.h"
#include "common/Thread.h"
#include "diagnostics/KZCheckpoints.h"
#include "guardian/ProcessTestSupport.h"
#include "guardian/process.h"
#include "support/ChildProcess.h"
#include "support/TempFolder.h"

namespace guardian {
namespace {

using testing::EndsWith;
using testing::HasSubstr;

std::string LinkOf(int descriptor) {
  std::error_code error;
  const auto path =
      std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), error);
  return error ? "closed" : path.string();
}

void WriteReport(const std::string& path) {
  struct sigaction hangup {};
  ::sigaction(SIGHUP, nullptr, &hangup);
  const mode_t mask = ::umask(0);
  std::ostringstream text;
  text << "pid " << ::getpid() << "\nsid " << ::getsid(0) << "\ngroup " << ::getpgrp() << "\numask "
       << mask << "\ncwd " << std::filesystem::current_path().string() << "\nhangup "
       << (hangup.sa_handler == SIG_IGN ? "ignored" : "default") << "\nfd0 " << LinkOf(0)
       << "\nfd1 " << LinkOf(1) << "\nfd2 " << LinkOf(2) << "\ncheckpoint "
       << KZCP::CurrentCP(CurrentThreadId()) << "\nothers ";
  for (const int number : OpenDescriptors()) {
    if (number > 2) text << number << ";";
  }
  std::ofstream(path + ".tmp") << text.str() << "\n";
  std::filesystem::rename(path + ".tmp", path);
}

bool OpenAt(int number) {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_cur <= static_cast<rlim_t>(number)) {
    limit.rlim_cur = static_cast<rlim_t>(number) + 1;
    limit.rlim_max = std::max(limit.rlim_max, limit.rlim_cur);
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
  }
  return ::dup2(2, number) == number;
}

bool SetOpenFilesLimit(rlim_t soft) {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = soft;
  return ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

// To a million, or as far as this machine allows. Returns the new limit.
int RaiseOpenFilesLimit() {
  constexpr rlim_t kMillion = 1'048'576;
  rlimit limit{kMillion, kMillion};
  if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min(limit.rlim_max, kMillion);
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
  return static_cast<int>(limit.rlim_cur);
}

bool MakeForkFail() {
#ifdef SYS_fork
  if (!MakeCallFail(SYS_fork, EAGAIN)) return false;
#endif
  return MakeCallFail(SYS_clone, EAGAIN);
}

// The daemon log's folder, for this process alone.
bool UseAsLogFolder(const std::string& folder) {
  return ::unshare(CLONE_NEWNS) == 0 &&
         ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount(folder.c_str(), "/var/log", nullptr, MS_BIND, nullptr) == 0;
}

std::string gAtExitFile;

// What surrounds BecomeDaemon in the child, by the name of the case; false where this machine does
// not allow it.
const std::map<std::string, std::function<bool(const std::string& folder)>>& Surroundings() {
  static const std::map<std::string, std::function<bool(const std::string&)>> surroundings = {
      {"plain", [](const std::string&) { return OpenAt(40); }},
      {"debug",
       [](const std::string& folder) {
         Settings().DebugHook = 7;
         return OpenAt(40) && UseAsLogFolder(folder);
       }},
      {"debug-no-log",
       [](const std::string& folder) {
         Settings().DebugHook = -1;
         return UseAsLogFolder(folder) &&
                ::mount("none", "/var/log", "tmpfs", MS_RDONLY, nullptr) == 0;
       }},
      {"limit-64",
       [](const std::string&) { return OpenAt(256) && OpenAt(257) && SetOpenFilesLimit(64); }},
      {"limit-64-old-kernel",
       [](const std::string&) {
         return OpenAt(256) && OpenAt(257) && SetOpenFilesLimit(64) &&
                MakeCallFail(SYS_close_range, ENOSYS);
       }},
      {"limit-highest", [](const std::string&) { return OpenAt(RaiseOpenFilesLimit() - 1); }},
      {"limit-unknown",
       [](const std::string&) {
         return OpenAt(8192) && OpenAt(8193) && MakeCallFail(SYS_prlimit64, EPERM);
       }},
      {"no-fork", [](const std::string&) { return MakeForkFail(); }},
      {"no-second-fork",
       [](const std::string&) {
         return ::pthread_atfork(nullptr, nullptr, [] { MakeForkFail(); }) == 0;
       }},
      {"no-setsid", [](const std::string&) { return MakeCallFail(SYS_setsid, EPERM); }},
      {"no-sigaction",
       [](const std::string&) { return MakeCallFail(SYS_rt_sigaction, EPERM, SIGHUP); }},
  };
  return surroundings;
}

const TRegisterChild kDaemon("daemon", [](const std::vector<std::string>& arguments) -> int {
  const std::string& folder = arguments.at(1);
  gAtExitFile = folder + "/at-exit";
  std::atexit([] { std::ofstream(std::string(gAtExitFile)) << "ran"; });
  ::umask(022);
  if (!Surroundings().at(arguments.at(0))(folder)) ::_exit(77);
  KZCP::Init();
  std::fputs("unflushed\n", stdout);
  BecomeDaemon();
  PrintLine("after");
  WriteReport(folder + "/report");
  ::_exit(0);
});

// Starts a child that becomes a daemon, and reads what it found.
class BecomeDaemonTest : public testing::Test {
 protected:
  // False where the machine does not allow the case's surroundings.
  bool Start(const std::string& surroundings) {
    Settings().TempDirectory.Set(FFolder.Path());
    const TRun run =
        RunLine("'" + OwnPath() + "' --child daemon " + surroundings + " '" + FFolder.Path() + "'",
                FFolder.Path("printed"));
    Settings().TempDirectory.Set("/tmp");
    if (run.ExitCode == 77) return false;
    EXPECT_EQ(run.ExitCode, 0);
    EXPECT_TRUE(Eventually([this] { return FFolder.Has("report"); }));
    ReadReport();
    EXPECT_FALSE(FFolder.Has("at-exit"));
    EXPECT_TRUE(Eventually([this] { return !IsAlive(std::stoi(Found("pid"))); }));
    return true;
  }

  std::string Found(const std::string& item) { return FReport.at(item); }
  std::string Printed() { return FFolder.Read("printed"); }

  void ExpectDaemon() {
    EXPECT_EQ(Found("checkpoint"), "BecomeDaemonX");
    EXPECT_NE(Found("sid"), Found("pid")) << "a session leader could get a terminal again";
    EXPECT_NE(Found("sid"), std::to_string(::getsid(0)));
    EXPECT_EQ(Found("group"), Found("sid"));
    EXPECT_EQ(Found("umask"), "0");
    EXPECT_EQ(Found("cwd"), "/");
    EXPECT_EQ(Found("hangup"), "ignored");
  }

  void ExpectNullHandles() {
    EXPECT_EQ(Found("fd0"), "/dev/null");
    EXPECT_EQ(Found("fd1"), "/dev/null");
    EXPECT_EQ(Found("fd2"), "/dev/null");
  }

  TTempFolder FFolder;

 private:
  void ReadReport() {
    std::istringstream lines(FFolder.Read("report"));
    for (std::string line; std::getline(lines, line);) {
      const std::size_t blank = line.find(' ');
      FReport[line.substr(0, blank)] = line.substr(blank + 1);
    }
  }

  std::map<std::string, std::string> FReport;
};

TEST_F(BecomeDaemonTest, LeavesTerminalAndClosesEverything) {
  ASSERT_TRUE(Start("plain"));
  ExpectDaemon();
  ExpectNullHandles();
  EXPECT_EQ(Found("others"), "");
  EXPECT_EQ(Printed(), "unflushed\n");
}

TEST_F(BecomeDaemonTest, DebugHookKeepsHandlesAndTraces) {
  if (!Start("debug")) GTEST_SKIP() << "needs a mount namespace";
  ExpectDaemon();
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(Printed(),
            "unflushed\n"
            "Becoming Daemon Before First Fork, DebugHook=7\n"
            "Becoming Daemon Before setsid, DebugHook=7\n"
            "Becoming Daemon Before Second Fork, DebugHook=7\n"
            "Becoming Daemon Before Closing Files, DebugHook=7\n"
            "rlimit.rlim_cur=" +
                std::to_string(limit.rlim_cur) +
                ", rlimit.rlim_max=" + std::to_string(limit.rlim_max) + "\n");
  EXPECT_EQ(FFolder.Read("vellumarkdaemon.log"),
            "End of BecomeDaemon, fd0=0, fd1=1, fd2=2\nafter\n");
  EXPECT_EQ(Found("fd0"), "/dev/null");
  EXPECT_EQ(Found("fd1"), "/var/log/vellumarkdaemon.log");
  EXPECT_NE(Found("fd2"), "closed");
  EXPECT_EQ(Found("others"), "");
}

TEST_F(BecomeDaemonTest, DebugHookKeepsOutputWhenLogCannotBeOpened) {
  if (!Start("debug-no-log")) GTEST_SKIP() << "needs a mount namespace";
  ExpectDaemon();
  EXPECT_THAT(Printed(), HasSubstr("\nCannot open /var/log/vellumarkdaemon.log: "));
  EXPECT_THAT(Printed(), EndsWith("\nafter\n"));
}

TEST_F(BecomeDaemonTest, ClosesUpToAndIncludingTheLimit) {
  const struct {
    const char* Surroundings;
    const char* Others;
  } cases[] = {
      {"limit-64", "257;"},
      {"limit-64-old-kernel", "257;"},
      {"limit-unknown", "8193;"},
      {"limit-highest", ""},
  };
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.Surroundings);
    std::filesystem::remove(FFolder.Path("report"));
    if (!Start(expected.Surroundings)) GTEST_SKIP() << "no such limit or filter here";
    ExpectDaemon();
    ExpectNullHandles();
    EXPECT_EQ(Found("others"), expected.Others);
  }
}

TEST_F(BecomeDaemonTest, GoesOnInTheStateReachedAfterAFailure) {
  const struct {
    const char* Surroundings;
    const char* Printed;
    bool IsInStartedGroup;
  } cases[] = {
      {"no-fork", "unflushed\nCannot fork to become daemon.\nafter\n", true},
      {"no-setsid", "unflushed\nCall to setsid failed, cannot become daemon.\nafter\n", true},
      {"no-second-fork", "unflushed\nCannot fork to become daemon.\nafter\n", false},
  };
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.Surroundings);
    std::filesystem::remove(FFolder.Path("report"));
    if (!Start(expected.Surroundings)) GTEST_SKIP() << "no system call filters here";
    EXPECT_EQ(Printed(), expected.Printed);
    EXPECT_EQ(Found("checkpoint"), "BecomeDaemon");
    EXPECT_EQ(Found("sid") == std::to_string(::getsid(0)), expected.IsInStartedGroup);
    EXPECT_EQ(Found("umask"), "18");
    EXPECT_EQ(Found("hangup"), "default");
  }
}

TEST_F(BecomeDaemonTest, SaysThatHangupCannotBeIgnored) {
  if (!Start("no-sigaction")) GTEST_SKIP() << "no system call filters here";
  EXPECT_EQ(Printed(), "unflushed\nError setting SIGHUP to \"ignore\":-1\n");
  EXPECT_EQ(Found("checkpoint"), "BecomeDaemonX");
  EXPECT_EQ(Found("hangup"), "default");
}

}  // namespace
}  // namespace guardian
