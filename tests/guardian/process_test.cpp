#include "guardian/process.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "common/Cancellation.h"
#include "common/Console.h"
#include "common/Exceptions.h"
#include "common/FileDescriptor.h"
#include "common/Settings.h"
#include "common/Thread.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/checkpoints/CheckpointRecord.h"
#include "guardian/ProcessTestSupport.h"
#include "guardian/process/ShellCommand.h"
#include "support/ChildProcess.h"
#include "support/TempFolder.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

constexpr std::size_t kMaxOutput = 16'777'216;

inline TShellCommand Command(const std::string& line) {
  TShellCommand command;
  command.CommandLine = line;
  command.Timeout = std::chrono::seconds(kHangLimitSec);
  return command;
}

// Whether this process has a child, running or not yet reaped.
bool HasChild() {
  siginfo_t info{};
  return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

// After each test: no temporary file, no descriptor and no child of ours is left.
class ProcessTest : public testing::Test {
 protected:
  void SetUp() override {
    Settings().TempDirectory.Set(FTemp.Path());
    FDescriptors = OpenDescriptors();
  }

  void TearDown() override {
    Settings().TempDirectory.Set("/tmp");
    Settings().PlainSystemCall = false;
    Settings().ShellTrace = false;
    EXPECT_TRUE(std::filesystem::is_empty(FTemp.Path()));
    EXPECT_EQ(OpenDescriptors(), FDescriptors);
    EXPECT_FALSE(HasChild());
    for (const pid_t pid : FStrangers) ::kill(pid, SIGKILL);
  }

  // The process whose number a command wrote into the file; it is killed at the test's end.
  pid_t PidIn(const std::string& name) { return Adopt(std::atoi(FWork.Read(name).c_str())); }

  pid_t Adopt(pid_t pid) {
    if (pid > 1) FStrangers.push_back(pid);
    return pid;
  }

  TTempFolder FTemp;
  TTempFolder FWork;

 private:
  std::set<int> FDescriptors;
  std::vector<pid_t> FStrangers;
};

// The same expectations hold for both runners.
class ProcessRunnersTest : public ProcessTest, public testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    ProcessTest::SetUp();
    Settings().PlainSystemCall = GetParam();
  }
};

INSTANTIATE_TEST_SUITE_P(Runners, ProcessRunnersTest, testing::Bool(), [](const auto& parameter) {
  return std::string(parameter.param ? "Fork" : "Spawn");
});

TEST_P(ProcessRunnersTest, ReturnsOutputAndStatusOfTheShell) {
  const struct {
    const char* Line;
    const char* Output;
    int ExitCode;
  } cases[] = {
      {"true", "", 0},
      {"exit 7", "", 7},
      {"sh -c 'exit 255'", "", 255},
      {"kill -KILL $$", "", 137},
      {"kill -TERM $$", "", 143},
      {"sh -c 'echo one; echo two >&2; echo three'", "one\ntwo\nthree\n", 0},
      {R"(printf '%s|' "a b" 'c"d' "e'f" \$HOME "\"" 'x\y')", R"(a b|c"d|e'f|$HOME|"|x\y|)", 0},
      {"cat <&- 2>/dev/null || echo empty", "empty\n", 0},
  };
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.Line);
    const TRun run = RunLine(expected.Line);
    EXPECT_EQ(run.Output, expected.Output);
    EXPECT_EQ(run.ExitCode, expected.ExitCode);
  }
  const TRun missing = RunLine("kz-no-such-command");
  EXPECT_EQ(missing.ExitCode, 127);
  EXPECT_THAT(missing.Output, HasSubstr("not found"));
}

TEST_P(ProcessRunnersTest, ChildStartsCleanWhateverTheParentHolds) {
  const TFileDescriptor low(::open("/dev/null", O_RDONLY));
  const TFileDescriptor high(::fcntl(low.Get(), F_DUPFD, 500));
  ASSERT_GE(high.Get(), 500);
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &all, &before), 0);
  const auto oldPipe = ::signal(SIGPIPE, SIG_IGN);
  const auto oldHangup = ::signal(SIGHUP, SIG_IGN);
  const TRun run = RunLine(R"({ grep -E "SigBlk|SigIgn" /proc/self/status; ls /proc/self/fd; })");
  ::signal(SIGPIPE, oldPipe);
  ::signal(SIGHUP, oldHangup);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  // Descriptor 3 is the folder that ls reads.
  EXPECT_EQ(run.Output, "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n0\n1\n2\n3\n");
}

TEST_P(ProcessRunnersTest, DoesNotWaitForBackgroundProcess) {
  const TRun run = RunLine("{ sleep 300 & echo $!; }");
  const pid_t background = Adopt(std::atoi(run.Output.c_str()));
  EXPECT_EQ(run.ExitCode, 0);
  ASSERT_GT(background, 1);
  EXPECT_TRUE(IsAlive(background));
}

TEST_P(ProcessRunnersTest, CancellationEndsCommandThatIgnoresTerminate) {
  TCancellation cancellation;
  TShellCommand command = Command("sh -c 'trap \"\" TERM; echo $$ >\"" + FWork.Path("pid.tmp") +
                                  "\"; mv \"" + FWork.Path("pid.tmp") + "\" \"" +
                                  FWork.Path("pid") + "\"; while :; do sleep 0.1; done'");
  command.Cancellation = &cancellation;
  std::thread canceller([&] {
    EXPECT_TRUE(Eventually([this] { return FWork.Has("pid"); }));
    cancellation.Cancel();
  });
  const TShellResult result = RunShell(command);
  canceller.join();
  ASSERT_GT(PidIn("pid"), 1);
  EXPECT_EQ(result.End, TShellEnd::Cancelled);
  EXPECT_EQ(result.ExitCode, -1);
  EXPECT_TRUE(Eventually([this] { return !IsAlive(PidIn("pid")); }));

  command.CommandLine = "touch \"" + FWork.Path("started") + "\"";
  EXPECT_EQ(RunShell(command).End, TShellEnd::Cancelled);
  EXPECT_FALSE(FWork.Has("started"));
}

TEST_P(ProcessRunnersTest, TimeoutEndsCommand) {
  TShellCommand command = Command("sleep 300");
  command.Timeout = milliseconds(0);
  const TShellResult result = RunShell(command);
  EXPECT_EQ(result.End, TShellEnd::TimedOut);
  EXPECT_EQ(result.ExitCode, -1);
}

// The shell that leads the group dies of SIGTERM at once; who ignores it must not outlive it.
TEST_F(ProcessTest, TimeoutEndsWholeGroupButNotWhatLeftIt) {
  TShellCommand command =
      Command("setsid sleep 300 & echo $! >\"" + FWork.Path("daemon") +
              "\"; sh -c 'trap \"\" TERM; echo $$ >\"" + FWork.Path("stubborn") +
              "\"; echo partial; while :; do sleep 0.1; done' | cat");
  command.Timeout = std::chrono::seconds(2);
  const TShellResult result = RunShell(command);
  const pid_t daemon = PidIn("daemon");
  const pid_t stubborn = PidIn("stubborn");
  EXPECT_EQ(result.End, TShellEnd::TimedOut);
  EXPECT_EQ(result.ExitCode, -1);
  EXPECT_EQ(result.Output, "partial\n");
  ASSERT_GT(daemon, 1);
  ASSERT_GT(stubborn, 1);
  EXPECT_TRUE(IsAlive(daemon));
  EXPECT_TRUE(Eventually([&] { return !IsAlive(stubborn); }));
}

TEST_F(ProcessTest, CatchesWhatTheRedirectionDoesNotCover) {
  EXPECT_THAT(RunLine("ls --kz-no-such | grep \"[k]z-other\"").Output, HasSubstr("kz-no-such"));
  EXPECT_EQ(RunLine("echo first; echo last").Output, "first\nlast\n");
  EXPECT_EQ(RunLine("sh -c 'echo found; echo warning >&2' | cat").Output, "warning\nfound\n");
  EXPECT_EQ(RunLine("echo inside #").Output, "inside\n");
  EXPECT_THAT(RunLine("echo \"unfinished").Output, HasSubstr("nterminated"));
}

TEST_F(ProcessTest, CutsOutputAt16MiB) {
  const TRun whole = RunLine("head -c 16777216 /dev/zero");
  EXPECT_EQ(whole.Output.size(), kMaxOutput);
  const TRun cut = RunLine("echo front; head -c 16777216 /dev/zero");
  EXPECT_EQ(cut.ExitCode, 0);
  EXPECT_EQ(cut.Output.size(), kMaxOutput);
  EXPECT_THAT(cut.Output, StartsWith("front\n"));
}

TEST_F(ProcessTest, EndsCommandThatWritesWithoutEnd) {
  for (const char* line : {"yes", "sh -c 'trap \"\" TERM; yes >&2' | cat"}) {
    SCOPED_TRACE(line);
    const TShellResult result = RunShell(Command(line));
    EXPECT_EQ(result.End, TShellEnd::TooMuchOutput);
    EXPECT_EQ(result.ExitCode, -1);
    EXPECT_EQ(result.Output.size(), kMaxOutput);
  }
}

TEST_F(ProcessTest, MakesTempFileForOwnUserAlone) {
  const mode_t before = ::umask(0);
  const TRun run = RunLine("stat -c '%a %n' \"" + FTemp.Path() + "\"/*");
  ::umask(before);
  EXPECT_THAT(run.Output, StartsWith("600 " + FTemp.Path() + "/"));
  EXPECT_THAT(run.Output, EndsWith(".txt\n"));
}

TEST_F(ProcessTest, UsesGivenFileAndLeavesIt) {
  FWork.Write("a file", "old and long contents\n");
  EXPECT_EQ(RunLine("echo new", FWork.Path("a file")).Output, "new\n");
  EXPECT_EQ(FWork.Read("a file"), "new\n");
  // The redirection is not reached; the old contents are no output all the same.
  EXPECT_EQ(RunLine("exit 3; echo", FWork.Path("a file")).Output, "");
}

TEST_F(ProcessTest, FailsWithoutTempFile) {
  FWork.Write("file", "");
  const std::string folders[] = {FWork.Path("missing"), FWork.Path("file")};
  for (const std::string& folder : folders) {
    SCOPED_TRACE(folder);
    Settings().TempDirectory.Set(folder);
    const TRun run = RunLine("touch \"" + FWork.Path("ran") + "\"");
    EXPECT_EQ(run.Output, "");
    EXPECT_EQ(run.ExitCode, -1);
    EXPECT_THAT(KZCP::CurrentCP(CurrentThreadId()), StartsWith("errno: "));
    EXPECT_FALSE(FWork.Has("ran"));
    std::string output = "left over";
    int exitCode = 99;
    try {
      RunShellCmdWithOutput(output, "echo x", kHangLimitSec, true, "", exitCode);
      ADD_FAILURE() << "nothing raised";
    } catch (const KZException& error) {
      EXPECT_THAT(error.Message(), StartsWith("Error executing echo x"));
      EXPECT_THAT(error.Message(), HasSubstr(folder + "/"));
    }
    EXPECT_EQ(output, "");
    EXPECT_EQ(exitCode, -1);
  }
}

TEST_F(ProcessTest, NoFileNameBreaksOutOfItsQuotes) {
  const std::string names[] = {"q\"; touch hit; \"", "d$(touch hit)", "b`touch hit`", "s\\"};
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    const TTempFolder work;
    ASSERT_TRUE(std::filesystem::create_directory(work.Path(name)));
    Settings().TempDirectory.Set(work.Path(name));
    const TRun run = RunLine("cd \"" + work.Path() + "\"; echo *");
    EXPECT_EQ(run.Output, name + "\n");
    EXPECT_TRUE(std::filesystem::is_empty(work.Path(name)));
    EXPECT_FALSE(work.Has("hit"));

    TShellCommand given = Command("cd \"" + work.Path() + "\"; true");
    given.TempFileName = work.Path(name + ".txt");
    EXPECT_EQ(RunShell(given).ErrorNumber, EINVAL);
    EXPECT_FALSE(work.Has("hit"));
  }
  EXPECT_EQ(RunShell(Command(std::string("echo \0 hidden", 13))).ErrorNumber, EINVAL);
}

TEST_F(ProcessTest, MissingShellIsAFailureOfTheSpawnAndAStatusOfTheFork) {
  TShellCommand command = Command("echo x");
  command.ShellPath = FWork.Path("no-shell");
  const TShellResult spawned = RunShell(command);
  EXPECT_EQ(spawned.End, TShellEnd::CouldNotRun);
  EXPECT_EQ(spawned.ErrorNumber, ENOENT);
  EXPECT_EQ(spawned.Output, "");
  EXPECT_EQ(KZCP::CurrentCP(CurrentThreadId()), "errno: 2");

  Settings().PlainSystemCall = true;
  const TShellResult forked = RunShell(command);
  EXPECT_EQ(forked.End, TShellEnd::Exited);
  EXPECT_EQ(forked.ExitCode, 127);
}

// The texts are kept up to 50 characters.
TEST_F(ProcessTest, LeavesCheckpointsInOrder) {
  std::vector<std::string> passed;
  std::thread recorded([&] {
    KZCP::Switches().History = true;
    Settings().ShellTrace = true;
    TShellCommand command = Command("x");
    command.TempFileName = FWork.Path("f");
    command.ShellPath = "/kz/sh";
    EXPECT_EQ(RunShell(command).End, TShellEnd::CouldNotRun);
    const TCheckpointHistory* history = KZCP::CurrentRecord()->History();
    for (int index = 1; index <= history->NewestIndex(); ++index) {
      passed.emplace_back(history->At(index).Text.Load().View());
    }
    KZCP::Switches().History = false;
  });
  recorded.join();
  const std::string redirected = "x >\"" + FWork.Path("f") + "\"";
  EXPECT_THAT(passed, ElementsAre("ShellCmd1:x", "Shell Cmd: " + redirected + " 2>&1",
                                  "Exec: " + redirected, "ExecFail: " + redirected, "errno: 2"));
}

TEST_F(ProcessTest, RunsWhereTheSystemReapsChildrenItself) {
  const auto before = ::signal(SIGCHLD, SIG_IGN);
  const TRun run = RunLine("echo out; exit 3");
  ::signal(SIGCHLD, before);
  EXPECT_EQ(run.Output, "out\n");
  EXPECT_EQ(run.ExitCode, -1);
}

const TRegisterChild kOldKernelShell("old-kernel-shell", [](const std::vector<std::string>&) {
  for (const long call : {SYS_pidfd_open, SYS_close_range, SYS_memfd_create}) {
    if (!MakeCallFail(call, ENOSYS)) return 77;
  }
  const TRun run = RunLine("echo front; { ls /proc/self/fd; exit 3; }");
  PrintLine(run.Output + std::to_string(run.ExitCode));
  return 0;
});

TEST_F(ProcessTest, RunsOnKernelWithoutTheNewerCalls) {
  const TRun run = RunLine("'" + OwnPath() + "' --child old-kernel-shell");
  if (run.ExitCode == 77) GTEST_SKIP() << "no system call filters here";
  EXPECT_EQ(run.ExitCode, 0);
  EXPECT_EQ(run.Output, "front\n0\n1\n2\n3\n3\n");
}

// No signal reaches the command, as when it hangs in the kernel. Returns 0 when the run came back
// all the same and the command was reaped once it had ended.
int RunUnkillableShell(const std::string& folder) {
  if (!MakeCallFail(SYS_kill, EPERM)) return 77;
  TCancellation cancellation;
  TShellCommand command = Command("touch \"" + folder + "/started\"; while [ ! -e \"" + folder +
                                  "/release\" ]; do sleep 0.05; done");
  command.Cancellation = &cancellation;
  std::thread canceller([&] {
    EXPECT_TRUE(Eventually([&] { return std::filesystem::exists(folder + "/started"); }));
    cancellation.Cancel();
  });
  const TShellResult result = RunShell(command);
  canceller.join();
  const bool isLeft = HasChild();
  std::ofstream(folder + "/release") << "now";
  const bool isReaped = Eventually([] {
    RunLine("true");
    return !HasChild();
  });
  return result.End == TShellEnd::Cancelled && isLeft && isReaped ? 0 : 1;
}

const TRegisterChild kUnkillableShell("unkillable-shell",
                                      [](const std::vector<std::string>& arguments) {
                                        return RunUnkillableShell(arguments.at(0));
                                      });

TEST_F(ProcessTest, ComesBackFromCommandThatCannotBeKilled) {
  const TRun run = RunLine("'" + OwnPath() + "' --child unkillable-shell '" + FWork.Path() + "'");
  if (run.ExitCode == 77) GTEST_SKIP() << "no system call filters here";
  EXPECT_EQ(run.ExitCode, 0) << run.Output;
}

}  // namespace
}  // namespace guardian
