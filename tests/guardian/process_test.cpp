#include "guardian/process.h"

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <iterator>

#include "common/Cancellation.h"
#include "common/Console.h"
#include "diagnostics/KZCheckpoints.h"
#include "guardian/process/ChildRegistry.h"
#include "guardian/process/ProcessListing.h"
#include "guardian/process/ShellChild.h"
#include "guardian/process/ShellCommand.h"
#include "support/TestSupport.h"

namespace guardian {
namespace {

constexpr int kHangLimitSec = 60;  // Bounds failure only.
// The exit code of a child that this machine does not let run.
constexpr int kNotAllowedHere = 77;

// From now on the system call fails in this process, as on a machine that lacks or forbids it.
// Returns whether that could be arranged.
bool MakeCallFail(long number, int error) {
  sock_filter filter[] = {
      {BPF_LD | BPF_W | BPF_ABS, 0, 0, static_cast<std::uint32_t>(offsetof(seccomp_data, nr))},
      {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, static_cast<std::uint32_t>(number)},
      {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error)},
      {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
  };
  sock_fprog program{static_cast<unsigned short>(std::size(filter)), filter};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

struct TRun {
  std::string Output = "left over";
  int ExitCode = 99;
};

TRun RunLine(const std::string& commandLine, const std::string& tempFileName = "",
             int timeoutSec = kHangLimitSec) {
  TRun run;
  RunShellCmdWithOutput(run.Output, commandLine, timeoutSec, false, tempFileName, run.ExitCode);
  return run;
}

// Runs a registered child function of this program; its standard output goes to the named file.
TRun RunChild(const std::string& arguments, const std::string& outputFile = "") {
  const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
  return RunLine("'" + self + "' --child " + arguments, outputFile);
}

constexpr std::size_t kMaxOutput = 16'777'216;

TShellCommand Command(const std::string& line) {
  TShellCommand command;
  command.CommandLine = line;
  command.Timeout = std::chrono::seconds(kHangLimitSec);
  return command;
}

// Asked every millisecond, the ending takes each step in exactly the millisecond of its limit.
TEST(ShellEndingTest, TakesEachStepAtItsLimit) {
  constexpr int kNever = 100'000;
  constexpr std::uint64_t kMost = 134'217'728;
  const std::tuple<int, std::uint64_t, int, int, std::string, TShellEnd> cases[] = {
      {500, kMost, kNever, kNever, "terminate 500, kill 2500, give up 4500, ", TShellEnd::TimedOut},
      {9'000, kMost, kNever, kNever, "", TShellEnd::Exited},
      {500, kMost + 1, kNever, kNever, "terminate 0, kill 2000, give up 4000, ",
       TShellEnd::TooMuchOutput},
      {9'000, 0, 50, kNever, "terminate 50, kill 550, give up 850, ", TShellEnd::Cancelled},
      {0, 0, 100, kNever, "terminate 0, kill 600, give up 900, ", TShellEnd::TimedOut},
      {0, 0, 2100, kNever, "terminate 0, kill 2000, give up 2400, ", TShellEnd::TimedOut},
      {5'000, 0, kNever, 300, "terminate 3604000, kill 3606000, ", TShellEnd::TimedOut},
  };
  for (const auto& [timeoutMs, outputBytes, cancelledAt, asleepAt, expected, reason] : cases) {
    SCOPED_TRACE(expected);
    TShellEnding ending(std::chrono::milliseconds(timeoutMs), 0);
    std::string steps;
    for (std::int64_t round = 0; round < 8'000; ++round) {
      constexpr const char* kNames[] = {"", "terminate ", "kill ", "give up "};
      const std::int64_t now = round < asleepAt ? round : round + 3'599'999;  // An hour's sleep.
      const auto action = ending.Decide(now, outputBytes, round >= cancelledAt);
      if (action != TShellAction::Wait) {
        steps += kNames[static_cast<int>(action)] + std::to_string(now) + ", ";
      }
      if (action == TShellAction::GiveUp) break;
    }
    EXPECT_EQ(std::pair(steps, ending.Reason()), std::pair(expected, reason));
  }
}

// Whether this process has a child, running or not yet reaped.
bool HasChild() {
  siginfo_t info{};
  return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

// A zombie that nobody reaps yet counts as gone.
bool IsAlive(const std::string& pid) {
  std::string stat;
  std::getline(std::ifstream("/proc/" + std::to_string(std::stoi(pid)) + "/stat"), stat);
  return !stat.empty() && stat.find(") Z ") == std::string::npos;
}

// Runs the command and cancels it once the file is there.
TShellResult RunUntilFile(const std::string& line, const std::string& path) {
  TCancellation cancellation;
  TShellCommand command = Command(line);
  command.Cancellation = &cancellation;
  TCrew canceller(1, [&](int) {
    EXPECT_TRUE(Eventually([&] { return std::filesystem::exists(path); }));
    cancellation.Cancel();
  });
  return RunShell(command);
}

// A signal every so many microseconds interrupts whatever this process waits in.
class TAlarms {
 public:
  explicit TAlarms(useconds_t interval) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGALRM, &action, nullptr);
    ::ualarm(interval, interval);
  }
  ~TAlarms() { ::ualarm(0, 0); }
};

// After each test: no temporary file, no descriptor, no child of ours and no signal mask is left.
class ProcessTest : public testing::Test {
 protected:
  void SetUp() override { Settings().TempDirectory.Set(FTemp.Path()); }

  void TearDown() override {
    EXPECT_TRUE(std::filesystem::is_empty(FTemp.Path()));
    EXPECT_EQ(OpenDescriptors(), FDescriptors);
    EXPECT_FALSE(HasChild());
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_FALSE(sigismember(&mask, SIGTERM));
  }

  const TSettingsBackup FSettings{};
  const TTempFolder FTemp;
  const TTempFolder FWork;
  const std::set<int> FDescriptors = OpenDescriptors();
};

TEST_F(ProcessTest, ReturnsOutputAndStatusOfTheShellUnderAnySignals) {
  const std::tuple<const char*, Matcher<std::string>, int> cases[] = {
      {"true", "", 0},
      {"sleep 0.1; exit 7", "", 7},
      {"kill -KILL $$", "", 137},
      {"kz-no-such-command", HasSubstr("not found"), 127},
      {"sh -c 'echo one; echo two >&2; echo three'", "one\ntwo\nthree\n", 0},
      {R"(printf '%s|' "a b" 'c"d' "e'f" \$HOME "\"" 'x\y')", R"(a b|c"d|e'f|$HOME|"|x\y|)", 0},
      {"cat <&- 2>/dev/null || echo empty", "empty\n", 0},
      // What the redirection at the end of the line does not cover.
      {"echo first; echo last", "first\nlast\n", 0},
      {"sh -c 'echo found; echo warning >&2' | cat", "warning\nfound\n", 0},
      {"echo inside #", "inside\n", 0},
      {"echo lost; : >/dev/stderr; echo kept >&2; true", "kept\n", 0},
  };
  const TAlarms alarms(1'000);
  for (const auto& [line, output, exitCode] : cases) {
    const TRun run = RunLine(line);
    EXPECT_THAT(run.Output, output) << line;
    EXPECT_EQ(run.ExitCode, exitCode) << line;
  }
  EXPECT_THAT(RunLine("echo \"unfinished").Output, HasSubstr("nterminated"));
}

// Looks without a shell, since some shells clear the mask that they are started with.
TEST_F(ProcessTest, ChildStartsCleanWhateverTheParentHolds) {
  const TFileDescriptor low(::open("/dev/null", O_RDWR));
  const TFileDescriptor high(::fcntl(low.Get(), F_DUPFD, 500));
  sigset_t all, before;
  sigfillset(&all);
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &all, &before), 0);
  const auto oldPipe = ::signal(SIGPIPE, SIG_IGN);
  const std::string fd = "/proc/self/fd/";
  const std::vector<std::string> programs[] = {
      {"/bin/grep", "-qE", "SigBlk:.0+$", "/proc/self/status"},
      {"/bin/grep", "-qE", "SigIgn:.0+$", "/proc/self/status"},
      {"/usr/bin/test", "!", "-e", fd + "500", "-a", "!", "-e", fd + std::to_string(low.Get())}};
  for (const std::vector<std::string>& program : programs) {
    for (const bool forked : {false, true}) {
      TShellChild child;
      ASSERT_EQ(forked ? child.Fork(program) : child.Spawn(program, low.Get()), 0);
      TShellEnding ending(std::chrono::seconds(kHangLimitSec), SystemTickCount());
      child.Wait(
          ending, [] { return std::uint64_t{0}; }, nullptr);
      EXPECT_EQ(child.ExitCode(), 0) << program[2] << forked;
    }
  }
  ::signal(SIGPIPE, oldPipe);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// The shell that leads the group dies of SIGTERM at once; who ignores it must not outlive it,
// whatever its name.
TEST_F(ProcessTest, CancellationEndsTheWholeGroupButNotWhatLeftIt) {
  const TShellResult result = RunUntilFile(
      "cd '" + FWork.Path() + "'; setsid sh -c 'echo $$ >pid; mv pid daemon; exec sleep 300' & " +
          "ln -s /bin/sh 's) h'; mkfifo never; './s) h' -c 'trap \"\" TERM; " +
          "while [ ! -e daemon ]; do sleep 0.01; done; " +
          "echo partial; echo $$ >pid; mv pid stubborn; read line <never'",
      FWork.Path("stubborn"));
  EXPECT_EQ(std::tuple(result.End, result.ExitCode, result.Output),
            std::tuple(TShellEnd::Cancelled, -1, "partial\n"));
  EXPECT_TRUE(IsAlive(FWork.Read("daemon")));
  ::kill(std::stoi(FWork.Read("daemon")), SIGKILL);
  EXPECT_TRUE(Eventually([this] { return !IsAlive(FWork.Read("stubborn")); }));
}

TEST_F(ProcessTest, TimeoutEndsCommandAndACancelledOneDoesNotStart) {
  for (const int timeoutSec : {0, -5, 1}) {
    EXPECT_EQ(RunLine("sleep 20", "", timeoutSec).ExitCode, -1) << timeoutSec;
  }
  TShellCommand command = Command("true");
  command.TempFileName = FWork.Path("started");
  TCancellation cancellation;
  cancellation.Cancel();
  command.Cancellation = &cancellation;
  EXPECT_EQ(RunShell(command).End, TShellEnd::Cancelled);
  EXPECT_EQ(RunProgram({"/bin/sleep", "300"}, kHangLimitSec, &cancellation).ExitCode, -1);
  EXPECT_FALSE(FWork.Has("started"));
}

TEST_F(ProcessTest, RunsAProgramWithoutAShell) {
  EXPECT_EQ(
      RunProgram({"/bin/sh", "-c", "cat && echo lost && echo lost >&2 && exit 5"}, 60).ExitCode, 5);
  EXPECT_EQ(RunProgram({"/usr/bin/touch", FWork.Path("$(a) \"b\"")}, 60).ExitCode, 0);
  EXPECT_TRUE(FWork.Has("$(a) \"b\""));
  const auto before = ::signal(SIGCHLD, SIG_IGN);
  EXPECT_EQ(RunShell(Command("true")).End, TShellEnd::Exited) << "though its status is lost";
  ::signal(SIGCHLD, before);
  EXPECT_EQ(RunProgram({"/bin/sleep", "20"}, 1).ExitCode, -1);
  const TFileDescriptor input(::dup(STDIN_FILENO));
  const TFileDescriptor other(::open("/proc/self/exe", O_RDONLY));
  ::dup2(other.Get(), STDIN_FILENO);
  EXPECT_EQ(RunProgram({"/usr/bin/test", "/proc/self/fd/0", "-ef", "/dev/null"}, 60).ExitCode, 0);
  ::dup2(input.Get(), STDIN_FILENO);
  EXPECT_EQ(RunProgram({FWork.Path("missing")}, 60).ExitCode, -1);
}

TEST_F(ProcessTest, KillsTheGroupOfAChildThatNobodyWaitedForUnderAnySignals) {
  const TAlarms alarms(100);
  for (int round = 0; round < 20; ++round) {
    const TFileDescriptor output(::open(FWork.Path("pid").c_str(), O_RDWR | O_CREAT, 0600));
    TShellChild child;
    ASSERT_EQ(
        child.Spawn({"/bin/sh", "-c", "trap '' TERM; sleep 300 & echo $!; wait"}, output.Get()), 0);
    EXPECT_TRUE(Eventually([this] { return FWork.Read("pid").ends_with("\n"); }));
  }
  EXPECT_TRUE(Eventually([this] { return !IsAlive(FWork.Read("pid")); }));
}

// The last one's writer ignores SIGTERM, but what it writes to does not grow any more.
TEST_F(ProcessTest, CutsOutputAt16MiBAndEndsACommandThatWritesWithoutEnd) {
  const std::tuple<std::string, TShellEnd, std::size_t> cases[] = {
      {"head -c 16777215 /dev/zero", TShellEnd::Exited, kMaxOutput - 1},
      {"echo front; head -c 16777216 /dev/zero", TShellEnd::Exited, kMaxOutput},
      {"head -c 134217728 /dev/zero", TShellEnd::Exited, kMaxOutput},
      {"yes", TShellEnd::TooMuchOutput, kMaxOutput},
      {"sh -c 'trap \"\" TERM; yes >&2; touch \"" + FWork.Path("full") + "\"' | cat",
       TShellEnd::TooMuchOutput, kMaxOutput},
  };
  for (const auto& [line, end, outputBytes] : cases) {
    const TShellResult result = RunShell(Command(line));
    EXPECT_EQ(std::tuple(result.End, result.ExitCode, result.Output.size()),
              std::tuple(end, end == TShellEnd::Exited ? 0 : -1, outputBytes))
        << line;
  }
  EXPECT_TRUE(FWork.Has("full"));
}

TEST_F(ProcessTest, MakesFilesForOwnUserAloneAndLeavesAGivenOne) {
  const mode_t before = ::umask(0);
  const std::string stat = "stat -c '%a %n' \"" + FTemp.Path() + "\"/*";
  EXPECT_THAT(RunLine(stat).Output, MatchesRegex("600 " + FTemp.Path() + "/kzshell-.{6}\\.txt\n"));
  EXPECT_EQ(RunLine("stat -c %a '" + FWork.Path("made") + "'", FWork.Path("made")).Output, "600\n");
  ::umask(before);
  FWork.Write("a file", "old and long contents\n");
  EXPECT_EQ(RunLine("echo new", FWork.Path("a file")).Output, "new\n");
  EXPECT_EQ(FWork.Read("a file"), "new\n");
  // The redirection is not reached; the old contents are no output all the same.
  EXPECT_EQ(RunLine("exit 3; echo", FWork.Path("a file")).Output, "");
}

// Another program's lease on the file would hold an opening that blocks for 45 seconds.
TEST_F(ProcessTest, DoesNotWaitForAFileThatIsLeased) {
  const auto before = ::signal(SIGIO, SIG_IGN);
  FWork.Write("leased", "");
  const TFileDescriptor file(::open(FWork.Path("leased").c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::fcntl(file.Get(), F_SETLEASE, F_RDLCK), 0);
  EXPECT_EQ(RunLine("true", FWork.Path("leased")).ExitCode, -1);
  ::signal(SIGIO, before);
}

TEST_F(ProcessTest, FailsWithoutTheGivenFile) {
  TRun run;
  EXPECT_THAT(ThrownMessage([&] {
                RunShellCmdWithOutput(run.Output, "touch " + FWork.Path("touched"), 60, true,
                                      FWork.Path("missing/file"), run.ExitCode);
              }),
              MatchesRegex("Error executing touch .* >\"/.*: No.* directory \\(errno 2\\)"));
  EXPECT_THAT(KZCP::CurrentCP(CurrentThreadId()), StartsWith("errno: 2"));
  EXPECT_EQ(run.Output + std::to_string(run.ExitCode), "-1");
  EXPECT_EQ(RunLine("true", FWork.Path("missing/file")).ExitCode, -1);
  EXPECT_TRUE(std::filesystem::is_empty(FWork.Path()));
}

// Runs commands on a machine that loses one usual place for their output after the other. One that
// ignores SIGTERM sees its output shrink in "/dev/shm".
const TRegisterChild kHomeless("homeless", [](const std::vector<std::string>& /*arguments*/) {
  Settings().TempDirectory.Set("/tmp");
  if (!HasOwnMounts()) return kNotAllowedHere;
  for (const auto& [folder, options, place] : {std::array{"/dev/shm", "mode=777", "/tmp/kzshell-"},
                                               {"/dev/shm", "size=200m", "/dev/shm/kzshell-"},
                                               {"/dev/shm", "size=4k", "/tmp/kzshell-"},
                                               {"/tmp", "size=4k", "/proc/"}}) {
    if (::mount("none", folder, "tmpfs", 0, options) != 0) return kNotAllowedHere;
    EXPECT_EQ(RunLine("echo one; echo two").Output, "one\ntwo\n");
    EXPECT_THAT(KZCP::CurrentCP(CurrentThreadId()), HasSubstr(std::string(">\"") + place));
    if (options != std::string("size=200m")) continue;
    RunLine(
        "sh -c 'trap \"\" TERM; head -c 134217729 /dev/zero; cd /dev/shm; "
        "until [ $(stat -c %b kz*) -lt 32800 ]; do sleep 0.01; done; touch shrunk'");
    EXPECT_TRUE(std::filesystem::exists("/dev/shm/shrunk"));
  }
  return 0;
});

TEST_F(ProcessTest, FindsAPlaceForOutputWhateverBecomesOfTheTempFolder) {
  for (const std::string& folder : {FWork.Path("missing"), std::string("/dev/null")}) {
    Settings().TempDirectory.Set(folder);
    EXPECT_EQ(RunLine("echo one; echo two").Output, "one\ntwo\n");
    EXPECT_THAT(KZCP::CurrentCP(CurrentThreadId()), HasSubstr(">\"/tmp/kzshell-"));
  }
  Settings().TempDirectory.Set(FTemp.Path());
  const TRun homeless = RunChild("homeless");
  if (homeless.ExitCode == kNotAllowedHere) GTEST_SKIP() << "no mounts here";
  EXPECT_THAT(homeless.Output, MatchesRegex("Temp folder /tmp .*; commands write to memory\n"));
}

// Nor does the daemon's name get into the shell's line, where the process list would show it.
TEST_F(ProcessTest, NoFileNameBreaksOutOfItsQuotes) {
  for (const std::string name :
       {"q\"; touch hit; \"", "d$(touch hit)", "b`touch hit`", "s\\", "VellumarkCL"}) {
    SCOPED_TRACE(name);
    const TTempFolder work;
    ASSERT_TRUE(std::filesystem::create_directory(work.Path(name)));
    Settings().TempDirectory.Set(work.Path(name));
    EXPECT_EQ(RunLine("cd \"" + work.Path() + "\"; echo * */*").Output, name + " */*\n");
    EXPECT_FALSE(work.Has("hit"));
    if (name == "VellumarkCL") continue;
    TShellCommand given = Command("cd \"" + work.Path() + "\"; true");
    given.TempFileName = work.Path(name + ".txt");
    EXPECT_EQ(RunShell(given).ErrorNumber, EINVAL);
    EXPECT_FALSE(work.Has("hit"));
  }
  EXPECT_EQ(RunShell(Command(std::string("echo \0 hidden", 13))).ErrorNumber, EINVAL);
}

// Prints how the command line ends, by both runners, where the system calls fail that the other
// arguments number.
const TRegisterChild kRestricted("restricted", [](const std::vector<std::string>& arguments) {
  const TTempFolder temp;
  Settings().TempDirectory.Set(temp.Path());
  for (std::size_t index = 1; index < arguments.size(); ++index) {
    if (!MakeCallFail(std::stol(arguments[index]), ENOSYS)) return kNotAllowedHere;
  }
  for (const bool plain : {false, true}) {
    Settings().PlainSystemCall = plain;
    const TRun run = RunLine(arguments.at(0));
    PrintLine(run.Output + std::to_string(run.ExitCode));
  }
  PrintLine(KZCP::CurrentCP(CurrentThreadId()));
  PrintLine(YesNo(std::filesystem::is_empty(temp.Path())));
  return 0;
});

TEST_F(ProcessTest, RunsOnKernelWithoutTheNewerCallsAndSaysThatThereIsNoShell) {
  const auto call = [](long number) { return " " + std::to_string(number); };
  const TRun old = RunChild("restricted '{ ls /proc/self/fd; exit 3; }'" + call(SYS_pidfd_open) +
                            call(SYS_close_range) + call(SYS_memfd_create));
  if (old.ExitCode == kNotAllowedHere) GTEST_SKIP() << "no system call filters here";
  EXPECT_THAT(old.Output, StartsWith("0\n1\n2\n3\n3\n0\n1\n2\n3\n3\nExec: { ls"));
  const TRun noChild = RunChild("restricted true" + call(SYS_clone) + call(SYS_clone3));
  EXPECT_THAT(noChild.Output, StartsWith("-1\n-1\nerrno: 38\nY\n"));
  const TRun noShell = RunChild("restricted true" + call(SYS_execve));
  EXPECT_THAT(noShell.Output, MatchesRegex("-1\n127\nExec: true .*\nY\n"));
}

// Returns 0 when orphans, which fall to this process as they do to process 1, are reaped, and the
// statuses of its own commands are not lost to that.
const TRegisterChild kReaper("reaper", [](const std::vector<std::string>& /*arguments*/) {
  ::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
  TCrew(2, [](int) {
    for (int round = 0; round < 50; ++round) {
      EXPECT_EQ(RunLine("(sleep 0.01 &); (true &); exit 7").ExitCode, 7);
    }
  }).Join();
  const bool isReaped = Eventually([] { return RunLine("exit 7").ExitCode == 7 && !HasChild(); });
  return isReaped && !testing::Test::HasFailure() ? 0 : 1;
});

TEST_F(ProcessTest, ReapsOrphansWhereTheyFallToIt) {
  const TRun run = RunChild("reaper");
  EXPECT_EQ(run.ExitCode, 0) << run.Output;
}

class RunnersTest : public ProcessTest, public testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(Both, RunnersTest, testing::Bool());

TEST_P(RunnersTest, KnowsItselfAndItsCommandsByTheirIds) {
  Settings().PlainSystemCall = GetParam();
  EXPECT_TRUE(IsOwnProcess(::getpid()));
  EXPECT_FALSE(IsOwnProcess(::getppid()));
  const auto pids = [this] {
    std::istringstream text(FWork.Read("pids"));
    return std::vector<pid_t>(std::istream_iterator<pid_t>(text), {});
  };
  TCrew crew(1, [this](int) {
    RunLine("cd '" + FWork.Path() + "'; sleep 300 & echo $$ $! >pids; touch told; " +
            "while [ ! -e go ]; do sleep 0.01; done");
  });
  ASSERT_TRUE(Eventually([this] { return FWork.Has("told"); }));
  const pid_t shell = pids().at(0), left = pids().at(1);
  EXPECT_TRUE(Eventually([=] { return IsOwnProcess(shell) && IsOwnProcess(left); }))
      << "known as soon as its start has returned";
  FWork.Write("go", "");
  crew.Join();
  RunLine("true");
  EXPECT_TRUE(IsOwnProcess(shell)) << "an old process list may show it";
  EXPECT_FALSE(IsOwnProcess(left)) << "it may be the daemon";
  EXPECT_TRUE(Eventually([text = std::to_string(left)] {
    return static_cast<int>(*ProcessAgeSec(text)) ==
           std::stoi(RunLine("ps -o etimes= -p " + text).Output);
  }));
  EXPECT_EQ(::kill(left, SIGKILL), 0) << "nobody waits for it, or ends it";
}

// No signal reaches the command, as when it hangs in the kernel. Returns 0 when the run came back
// all the same and the command was reaped once it had ended.
const TRegisterChild kUnkillable("unkillable", [](const std::vector<std::string>& arguments) {
  const std::string& folder = arguments.at(0);
  if (!MakeCallFail(SYS_kill, EPERM)) return kNotAllowedHere;
  const TShellResult result = RunUntilFile(
      "cd '" + folder + "'; touch started; while [ ! -e release ]; do sleep 0.05; done",
      folder + "/started");
  const bool isLeft = RunLine("true").ExitCode == 0 && HasChild();
  std::ofstream(folder + "/release") << "now";
  const bool isReaped = Eventually([] { return RunLine("true").ExitCode == 0 && !HasChild(); });
  return result.End == TShellEnd::Cancelled && isLeft && isReaped ? 0 : 1;
});

TEST_F(ProcessTest, ComesBackFromCommandThatCannotBeKilled) {
  const TRun run = RunChild("unkillable '" + FWork.Path() + "'");
  if (run.ExitCode == kNotAllowedHere) GTEST_SKIP() << "no system call filters here";
  EXPECT_EQ(run.ExitCode, 0) << run.Output;
}

// Not system calls: what else may fail.
constexpr long kNothing = -1;
constexpr long kSecondFork = -2;
constexpr long kKeepsHandles = -3;  // Nothing: a daemon with a log of its own.

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
    {40, 20'000, kKeepsHandles, "", kDaemon + "0=null 1=vellumarkdaemon.log 2=printed "},
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
    const bool isOutput = number == STDOUT_FILENO || number == STDERR_FILENO;
    const char* const fault = isOutput && ::write(number, "", 0) < 0 ? " takes nothing" : " ";
    text << number << (number <= 2 ? "=" + file.filename().string() : "") << fault;
  }
  return text.str();
}

bool OpenWithin(int descriptor, rlim_t limit) {
  const rlimit wide{20'000, 20'000}, narrow{limit, 20'000};
  return ::setrlimit(RLIMIT_NOFILE, &wide) == 0 && ::dup2(2, descriptor) == descriptor &&
         ::dup2(2, descriptor + 1) == descriptor + 1 && ::setrlimit(RLIMIT_NOFILE, &narrow) == 0;
}

bool Fail(long what, const std::string& folder) {
  if (what == kKeepsHandles) {
    Settings().DebugHook = 1;
    return HasOwnMounts() && ::mount(folder.c_str(), "/var/log", nullptr, MS_BIND, nullptr) == 0;
  }
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
  if (!OpenWithin(surroundings.Open, surroundings.Limit) || !Fail(surroundings.Fails, folder)) {
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
    if (run.ExitCode == kNotAllowedHere) GTEST_SKIP() << "no call filters or mounts here";
    EXPECT_EQ(run.ExitCode, 0);
    ASSERT_TRUE(Eventually([&] { return folder.Has("report"); }));
    EXPECT_EQ(folder.Read("report"), expected.Report);
    if (expected.Fails == kKeepsHandles) {
      EXPECT_EQ(std::filesystem::status(folder.Path("vellumarkdaemon.log")).permissions(),
                std::filesystem::perms(0644));
      EXPECT_EQ(folder.Read("vellumarkdaemon.log"),
                "End of BecomeDaemon, fd0=0, fd1=1, fd2=2\nafter\n");
      continue;
    }
    EXPECT_EQ(folder.Read("printed"), "unflushed\n" + expected.Printed);
  }
}

}  // namespace
}  // namespace guardian
