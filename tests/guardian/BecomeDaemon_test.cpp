#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "guardian/ProcessTestSupport.h"

namespace guardian {
namespace {

// Not system calls: what else may fail.
constexpr long kNothing = -1;
constexpr long kSecondFork = -2;

const std::string kDaemon = "BecomeDaemonX, new session, umask 0, ignores SIGHUP, in /: ";
const std::string kNulls = "0=null 1=null 2=null ";
const std::string kStopped = " session, umask 18, takes SIGHUP: 0=null 1=printed 2=printed 40 41 ";
const struct TCase {
  int Open;      // This descriptor and the next one are open.
  rlim_t Limit;  // Of open files; 20,000 is the hard one.
  long Fails;    // A system call or one of the numbers above.
  std::string Printed;
  std::string Report;
} kCases[] = {
    {19'998, 20'000, kNothing, "", kDaemon + kNulls},
    {300, 300, kNothing, "", kDaemon + kNulls + "301 "},
    {256, 64, kNothing, "", kDaemon + kNulls + "257 "},
    {256, 64, SYS_close_range, "", kDaemon + kNulls + "257 "},
    {8192, 20'000, SYS_prlimit64, "", kDaemon + kNulls + "8193 "},
    {40, 20'000, SYS_clone, "Cannot fork to become daemon.\nafter\n",
     "BecomeDaemon, old" + kStopped},
    {40, 20'000, SYS_setsid, "Call to setsid failed, cannot become daemon.\nafter\n",
     "BecomeDaemon, old" + kStopped},
    {40, 20'000, kSecondFork, "Cannot fork to become daemon.\nafter\n",
     "BecomeDaemon, own" + kStopped},
};

// What became of a process that was started in this session.
std::string Report(pid_t session) {
  struct sigaction hangup {};
  ::sigaction(SIGHUP, nullptr, &hangup);
  const pid_t now = ::getsid(0);
  const char* const kind = now == session ? "old" : now == ::getpid() ? "own" : "new";
  std::ostringstream text;
  text << KZCP::CurrentCP(CurrentThreadId()) << ", " << kind << " session, umask " << ::umask(0)
       << ", " << (hangup.sa_handler == SIG_IGN ? "ignores" : "takes") << " SIGHUP";
  if (std::filesystem::current_path() == "/" && ::getpgrp() == now) text << ", in /";
  text << ": ";
  for (const int number : OpenDescriptors()) {
    const auto file = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(number));
    text << number << (number <= 2 ? "=" + file.filename().string() : "") << " ";
  }
  return text.str();
}

bool OpenWithin(int descriptor, rlim_t limit) {
  const rlimit wide{20'000, 20'000};
  const rlimit narrow{limit, 20'000};
  return ::setrlimit(RLIMIT_NOFILE, &wide) == 0 && ::dup2(2, descriptor) == descriptor &&
         ::dup2(2, descriptor + 1) == descriptor + 1 && ::setrlimit(RLIMIT_NOFILE, &narrow) == 0;
}

bool Fail(long what) {
  if (what == kSecondFork) {
    return ::pthread_atfork(nullptr, nullptr, [] { MakeCallFail(SYS_clone, EAGAIN); }) == 0;
  }
  return what < 0 || MakeCallFail(what, ENOSYS);
}

const TRegisterChild kChild("daemon", [](const std::vector<std::string>& arguments) -> int {
  const TCase& surroundings = kCases[std::stoi(arguments.at(0))];
  const std::string& folder = arguments.at(1);
  std::atexit([] { std::puts("at exit"); });
  ::umask(022);
  if (!OpenWithin(surroundings.Open, surroundings.Limit) || !Fail(surroundings.Fails)) {
    ::_exit(kNotAllowedHere);
  }
  KZCP::Init();
  const pid_t session = ::getsid(0);
  std::fputs("unflushed\n", stdout);
  BecomeDaemon();
  PrintLine("after");
  const std::string report = Report(session);
  std::ofstream(folder + "/report.tmp") << report;
  std::filesystem::rename(folder + "/report.tmp", folder + "/report");
  ::_exit(0);
});

TEST(BecomeDaemonTest, EndsInTheStateThatItsSurroundingsAllow) {
  for (const TCase& expected : kCases) {
    SCOPED_TRACE(&expected - kCases);
    const TTempFolder folder;
    const TRun run =
        RunChild("daemon " + std::to_string(&expected - kCases) + " '" + folder.Path() + "'",
                 folder.Path("printed"));
    if (run.ExitCode == kNotAllowedHere) GTEST_SKIP() << "no call filters here";
    EXPECT_EQ(run.ExitCode, 0);
    ASSERT_TRUE(Eventually([&] { return folder.Has("report"); }));
    EXPECT_EQ(folder.Read("report"), expected.Report);
    EXPECT_EQ(folder.Read("printed"), "unflushed\n" + expected.Printed);
  }
}

}  // namespace
}  // namespace guardian
