#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <list>

#include <sstream>
#include <string>
#include <vector>

#include "DaemonExecutable.h"
#include "common/Texts.h"
#include "support/Eventually.h"
#include "support/Program.h"
#include "support/TempFolder.h"

namespace guardian {

namespace {

namespace fs = std::filesystem;

using testing::EndsWith;
using testing::HasSubstr;

constexpr int kExitNotRunning = 3;

struct TAnswer {
  int ExitCode = 0;
  std::string Output;
};

class StandInTest : public testing::Test {
 protected:
  // Orders out of the way, so that the stop is obeyed whatever the test had ordered.
  void TearDown() override {
    OrderFaults("");
    EXPECT_EQ(Run({"stop"}).ExitCode, 0);
  }

  [[nodiscard]] std::vector<std::string> CommandLine(const std::vector<std::string>& words) const {
    std::vector<std::string> arguments = {DAEMON_EXECUTABLE};
    arguments.insert(arguments.end(), words.begin(), words.end());
    return arguments;
  }

  [[nodiscard]] std::vector<std::string> Environment() const {
    return {"VELLUMARKCL_HOME=" + FHome.Path("state")};
  }

  [[nodiscard]] TAnswer Run(const std::vector<std::string>& words) const {
    TProgram program(CommandLine(words), Environment());
    const int exitCode = program.Wait();
    return {exitCode, program.Output()};
  }

  void OrderFaults(const std::string& lines) const {
    fs::create_directory(FHome.Path("state"));
    FHome.Write("state/faults", lines);
  }

  [[nodiscard]] std::string Log() const { return FHome.Read("state/logs/daemon.log"); }
  [[nodiscard]] bool Logs(const std::string& text) const {
    return Eventually([&] { return Log().find(text) != std::string::npos; });
  }

  [[nodiscard]] std::string PidText() const { return FHome.Read("state/daemon.pid"); }

  // Starts the daemon and returns its process id.
  [[nodiscard]] pid_t StartDaemon(const std::vector<std::string>& faults = {}) const {
    std::vector<std::string> words = {"start"};
    words.insert(words.end(), faults.begin(), faults.end());
    const TAnswer answer = Run(words);
    EXPECT_EQ(answer.ExitCode, 0);
    EXPECT_EQ(answer.Output, "VellumarkCL started.\n");
    return static_cast<pid_t>(std::stoi(PidText()));
  }

  [[nodiscard]] bool IsRunning() const { return Run({"status"}).ExitCode == 0; }
  [[nodiscard]] bool EndsByItself() const {
    return Eventually([this] { return !IsRunning(); });
  }

  TTempFolder FHome;
};

std::string CommandLineOf(pid_t pid) {
  std::ostringstream text;
  text << std::ifstream("/proc/" + std::to_string(pid) + "/cmdline").rdbuf();
  return ReplaceAll(text.str(), std::string(1, '\0'), " ");
}

// What the process has open, each once.
std::set<std::string> OpenFilesOf(pid_t pid) {
  std::set<std::string> files;
  for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
    files.insert(fs::read_symlink(entry).string());
  }
  return files;
}

}  // namespace

TEST_F(StandInTest, PrintsItsThreeFoldersAndCreatesThem) {
  const std::string state = FHome.Path("state");
  const TAnswer answer = Run({"/PATHS"});
  EXPECT_EQ(answer.ExitCode, 0);
  EXPECT_EQ(answer.Output,
            "TMP=" + state + "/tmp\nMUTEX=" + state + "/mutex\nLOGS=" + state + "/logs\n");
  for (const char* folder : {"/tmp", "/mutex", "/logs"}) {
    EXPECT_TRUE(fs::is_directory(state + folder)) << folder;
  }
}

TEST_F(StandInTest, LeavesTheMutexLineOutWhenOrdered) {
  OrderFaults("no-mutex-path\n");
  const std::string state = FHome.Path("state");
  EXPECT_EQ(Run({"/PATHS"}).Output, "TMP=" + state + "/tmp\nLOGS=" + state + "/logs\n");
}

TEST_F(StandInTest, FloodsTheHandshakeWithAHundredMegabytesAheadOfItsLines) {
  OrderFaults("paths-flood\n");
  const std::string output = Run({"/PATHS"}).Output;
  EXPECT_GE(output.size(), 100'000'000U);
  EXPECT_THAT(output.substr(output.size() - 1000), HasSubstr("\nTMP="));
  EXPECT_THAT(output, EndsWith("LOGS=" + FHome.Path("state") + "/logs\n"));
}

TEST_F(StandInTest, HangsInTheCommandThatIsOrderedToAndGoesOnByTheNextOrder) {
  const pid_t daemon = StartDaemon();
  for (const auto& [word, fault] : {std::pair{"/PATHS", "hang-paths"}, {"stop", "hang-stop"}}) {
    SCOPED_TRACE(fault);
    OrderFaults(std::string(fault) + "\n");
    TProgram command(CommandLine({word}), Environment());
    EXPECT_TRUE(Logs(std::string("A command hangs: ") + fault));
    EXPECT_TRUE(command.Running());
    EXPECT_EQ(Run({"status"}).Output,
              "VellumarkCL is running, PID " + std::to_string(daemon) + ".\n");
  }
}

TEST_F(StandInTest, StartsOneDaemonThatIsDetachedAndStopsIt) {
  const pid_t daemon = StartDaemon();
  const std::string pidText = std::to_string(daemon);
  EXPECT_EQ(CommandLineOf(daemon), DAEMON_EXECUTABLE " start ");
  EXPECT_NE(::getsid(daemon), ::getsid(0));
  EXPECT_NE(::getsid(daemon), daemon);
  for (const std::string& file : OpenFilesOf(daemon)) {
    const bool own = file == "/dev/null" || file.starts_with(FHome.Path("state/")) ||
                     file.starts_with("anon_inode:") || file.starts_with("socket:");
    EXPECT_TRUE(own) << file;
  }

  const TAnswer again = Run({"start"});
  EXPECT_EQ(again.ExitCode, 0);
  EXPECT_EQ(again.Output, "VellumarkCL is already running, PID " + pidText + ".\n");

  const TAnswer stop = Run({"stop"});
  EXPECT_EQ(stop.ExitCode, 0);
  EXPECT_EQ(stop.Output, "VellumarkCL stopped, PID " + pidText + ".\n");
  EXPECT_EQ(PidText(), "");
  EXPECT_THAT(Log(), HasSubstr(": Ended, PID " + pidText + "\n"));
  const TAnswer status = Run({"status"});
  EXPECT_EQ(status.ExitCode, kExitNotRunning);
  EXPECT_EQ(status.Output, "VellumarkCL is not running.\n");
}

TEST_F(StandInTest, StartsOnlyOneDaemonWhenManyStartAtOnce) {
  std::list<TProgram> starts;
  for (int i = 0; i < 6; ++i) starts.emplace_back(CommandLine({"start"}), Environment());
  int started = 0;
  for (TProgram& start : starts) {
    EXPECT_EQ(start.Wait(), 0);
    const std::string output = start.Output();
    if (output == "VellumarkCL started.\n") {
      ++started;
    } else {
      EXPECT_EQ(output, "VellumarkCL is already running, PID " +
                            PidText().substr(0, PidText().size() - 1) + ".\n");
    }
  }
  EXPECT_EQ(started, 1);
}

// The number in an unlocked file may be anybody's by now: here it is the test's own.
TEST_F(StandInTest, NeverSignalsTheProcessOfAStalePidFile) {
  fs::create_directory(FHome.Path("state"));
  const std::string own = std::to_string(::getpid()) + "\n";
  FHome.Write("state/daemon.pid", own);
  EXPECT_FALSE(IsRunning());
  EXPECT_EQ(Run({"stop"}).Output, "VellumarkCL is not running.\n");
  EXPECT_NE(StartDaemon(), ::getpid());
}

TEST_F(StandInTest, StartsAnewAfterAKill) {
  const pid_t first = StartDaemon();
  ::kill(first, SIGKILL);
  ASSERT_TRUE(EndsByItself());
  EXPECT_EQ(PidText(), std::to_string(first) + "\n");
  EXPECT_NE(StartDaemon(), first);
}

TEST_F(StandInTest, CrashesOnceWhenOrdered) {
  OrderFaults("");
  const pid_t first = StartDaemon();
  OrderFaults("ignore-term\ncrash\n");
  ASSERT_TRUE(EndsByItself());
  EXPECT_EQ(FHome.Read("state/faults"), "ignore-term\n");
  EXPECT_NE(StartDaemon(), first);
  EXPECT_TRUE(IsRunning());
}

TEST_F(StandInTest, IgnoresSigtermUntilTheOrderEnds) {
  const pid_t daemon = StartDaemon({"ignore-term"});
  ::kill(daemon, SIGTERM);
  EXPECT_TRUE(Logs("SIGTERM from PID " + std::to_string(::getpid()) + " ignored"));
  EXPECT_TRUE(IsRunning());
  OrderFaults("");
  EXPECT_TRUE(Logs("Fault ends: ignore-term"));
  ::kill(daemon, SIGTERM);
  EXPECT_TRUE(EndsByItself());
  EXPECT_EQ(PidText(), "");
}

TEST_F(StandInTest, IgnoresTheStopCommandButNotSigterm) {
  const pid_t daemon = StartDaemon();
  OrderFaults("ignore-stop\n");
  const TAnswer stop = Run({"stop"});
  EXPECT_EQ(stop.ExitCode, 1);
  EXPECT_EQ(stop.Output, "VellumarkCL ignores the stop, PID " + std::to_string(daemon) + ".\n");
  EXPECT_TRUE(IsRunning());
  ::kill(daemon, SIGTERM);
  EXPECT_TRUE(EndsByItself());
}

TEST_F(StandInTest, FailsToStartWhenOrdered) {
  const TAnswer answer = Run({"start", "start-fails"});
  EXPECT_EQ(answer.ExitCode, 1);
  EXPECT_EQ(answer.Output, "VellumarkCL could not be started: start-fails is ordered.\n");
  EXPECT_FALSE(IsRunning());
  EXPECT_EQ(Run({"start"}).ExitCode, 1);
}

TEST_F(StandInTest, AddsFaultsOfTheCommandLineToTheFileAndNamesUnknownOnes) {
  OrderFaults("# for the demo\n  no-mutex-path \r\n");
  EXPECT_GT(StartDaemon({"no-mutex-path", "make-coffee", "ignore-stop"}), 0);
  EXPECT_EQ(FHome.Read("state/faults"), "no-mutex-path\nmake-coffee\nignore-stop\n");
  EXPECT_TRUE(Logs("Fault begins: ignore-stop\n"));
  EXPECT_THAT(Log(), HasSubstr("Unknown fault: make-coffee\n"));
  EXPECT_THAT(Log(), HasSubstr("Fault begins: no-mutex-path\n"));
}

TEST_F(StandInTest, RunsInTheForegroundUntilASignalEndsIt) {
  for (const int signal : {SIGTERM, SIGINT}) {
    TProgram daemon(CommandLine({"run"}), Environment());
    const std::string line =
        "VellumarkCL runs in the foreground, PID " + std::to_string(daemon.Pid()) + ".\n";
    EXPECT_TRUE(Eventually([&] { return daemon.Output() == line; }));
    EXPECT_TRUE(IsRunning());
    daemon.Signal(signal);
    EXPECT_EQ(daemon.Wait(), 0);
    EXPECT_EQ(daemon.Output(), line);
  }
}

TEST_F(StandInTest, SaysWhyItCannotStart) {
  FHome.Write("state", "a file in the folder's place");
  const TAnswer answer = Run({"start"});
  EXPECT_EQ(answer.ExitCode, 1);
  EXPECT_THAT(answer.Output, HasSubstr("VellumarkCL failed: "));
  EXPECT_THAT(answer.Output, HasSubstr("Not a directory"));
  fs::remove(FHome.Path("state"));
}

TEST_F(StandInTest, EndsWhenItsDirectoryHasGone) {
  const pid_t daemon = StartDaemon();
  fs::remove_all(FHome.Path("state"));
  EXPECT_TRUE(Eventually([&] {
    return CommandLineOf(daemon).empty();  // Gone, or reaped by nobody yet.
  }));
}

}  // namespace guardian
