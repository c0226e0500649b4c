#include "guardian/GuardianService.h"

#include "common/Cancellation.h"
#include "guardian/FakeSurroundings.h"
#include "guardian/RunCommand.h"
#include "guardian/SystemLog.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;

// Commands are written with their time-outs.
const std::string kDaemon = "/opt/guard/VellumarkCL";
const std::string kAskPaths = kDaemon + " /PATHS @600";
const std::string kStart = kDaemon + " start @30";
const std::string kStop = kDaemon + " stop @20";
const std::string kPs = R"(ps -ef --columns 1000 | grep -e "[V]ellumarkCL" -e "[o]ption" @5)";
const std::string kPlainPs = R"(ps -ef | grep "[V]ellumarkCL" @5)";

// 9 is "kill -9", k "killall" and K "killall -9" of the attempts from 0 on.
std::string KillCommands(const std::string& pid) {
  const std::map<std::string, char> kinds = {
      {"kill -9 42", '9'}, {"killall VellumarkCL", 'k'}, {"killall -9 VellumarkCL", 'K'}};
  std::string commands;
  for (int attempt = 0; attempt < 20; ++attempt) commands += kinds.at(KillCommand(pid, attempt));
  return commands;
}

TEST(KillCommandTest, AlternatesAsItAlwaysDid) {
  EXPECT_EQ(KillCommands("42"), "99999999999k9K9k9K9k");
  EXPECT_EQ(KillCommands(""), "kKKkkKKkkKKkkKKkkKKk");
}

class GuardianServiceTest : public testing::Test {
 protected:
  // Returns what the start prints.
  std::string Start(const std::string& handshake) {
    FAnswers[kAskPaths] = {handshake, {}};
    testing::internal::CaptureStdout();
    FService.Start();
    return testing::internal::GetCapturedStdout();
  }

  // From here on a round runs when the test says so.
  void StartWithoutTimer() {
    Start("MUTEX=/m\n");
    FService.Pause();
  }

  // One round, so many milliseconds after the last; returns the commands that it ran.
  std::vector<std::string> TickAfter(int ms) {
    FFakes.Clock.Advance(milliseconds(ms));
    TakeRun();
    FService.Tick();
    return TakeRun();
  }

  // The commands since the last call.
  std::vector<std::string> TakeRun() KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    return std::exchange(FRun, {});
  }

  // The first command of the timer's next tick.
  std::string TimerRunsAfter(int ms) {
    std::vector<std::string> run = TakeRun();
    FFakes.Clock.Advance(milliseconds(ms));
    EXPECT_TRUE(Eventually([&] { return !(run = TakeRun()).empty(); }));
    return run.at(0);
  }

  void DaemonRunsAs(const std::string& pid) {
    FAnswers[kPs] = {"root " + pid + " VellumarkCL", {}};
  }
  std::string DetailedLog() const { return Joined(FService.Status().DetailedLog); }
  std::string ShortLog() const { return Joined(FService.Status().ActivityLog); }

  const TSettingsBackup FSettings{};
  const bool FCleared = (Settings().MutexDirectory.Set(""), Settings().LogDirectory.Set(""), true);
  TFakeSurroundings FFakes;
  std::map<std::string, TShellOutcome> FAnswers;
  TMutex FLock;
  std::vector<std::string> FRun KZ_GUARDED_BY(FLock);
  TGuardianService FService{FFakes.Make([this](const std::string& line, int timeoutSec) {
    const std::string command = line + " @" + std::to_string(timeoutSec);
    const TMutexLock lock(FLock);
    FRun.push_back(command);
    TShellOutcome answer = FAnswers[command];
    if (answer.Output == "is cut short by the end") FFakes.Stopping.Cancel();
    if (answer.Output == "sees another click") FService.RequestStart();
    return answer;
  })};
};

TEST_F(GuardianServiceTest, TakesTheDirectoriesFromTheHandshake) {
  SetPipeDirectory("/old");
  EXPECT_EQ(Start("TMP=/t\nMUTEX=/m\nLOGS=/l\n"),
            "Vellumark Guardian (Silent Mode)\n"
            "Initial Output: TMP=/t\nMUTEX=/m\nLOGS=/l\n\n\n"
            "TMP=/t\nMUTEX=/m\nLOGS=/l\n");
  EXPECT_THAT(TakeRun(), ElementsAre(kAskPaths));
  const TGuardianStatus status = FService.Status();
  EXPECT_TRUE(status.GotPaths && !status.GetPathsError && status.DaemonPathExists);
  EXPECT_EQ(std::tuple(status.DaemonTempPath, status.MutexPath, Settings().LogDirectory.Copy()),
            std::tuple("/t", "/m/vellumark$qrnd$schedulermutex", "/l"));
  EXPECT_THAT(DetailedLog(), HasSubstr("<br>Guardian started, v1.50<br>"));
  EXPECT_THAT(ShortLog(), EndsWith("  INFO: Guardian Service Started"));
  EXPECT_EQ(SchedulerMutexPath(), "/m/vellumark$qrnd$schedulermutex") << "the pipe directory";
  Start(std::string(1'000'000, 'x'));
  EXPECT_EQ(CountOf(DetailedLog(), "Guardian started, v1.50"), 1) << "its timer";
  EXPECT_LE(FService.Status().InitialOutput->size(), kShownOutputBytes + 100);
}

TEST_F(GuardianServiceTest, FallsBackToTheTempPathWithoutAMutexPathAndCountsNoFailures) {
  Start("TMP=/t\nMUTEX=\n");
  FService.Pause();
  EXPECT_EQ(Settings().MutexDirectory.Copy(), "/t");
  FFakes.Scheduler->MutexOK = false;
  DaemonRunsAs("5");
  for (int round = 0; round < 10; ++round) EXPECT_THAT(TickAfter(1'000), ElementsAre(kPs));
}

TEST_F(GuardianServiceTest, WatchesADaemonThatCannotBeAsked) {
  FFakes.Files.Files = {{kConf, "unreadable"}};
  Start("");
  EXPECT_THAT(DetailedLog(), HasSubstr("Exception starting guardian: open /etc/VellumarkCL.conf: "
                                       "Permission denied (errno 13)"));
  EXPECT_EQ(TimerRunsAfter(10'000), kPs);
}

TEST_F(GuardianServiceTest, TakesTheDaemonPathFromTheConfigurationOnlyWhenNoneIsBeside) {
  EXPECT_EQ(FService.GetDaemonPath(), kDaemon);
  FFakes.Files.Files = {{kConf, "unreadable"}};
  EXPECT_THROW(FService.GetDaemonPath(), SoftException);
  FFakes.Files.Files = {{kConf, "daemon=/one\r\ndaemon=/two words\r\n"}};
  testing::internal::CaptureStdout();
  EXPECT_EQ(FService.GetDaemonPath(), "/two words");
  FFakes.Files.Files[kConf] = "daemon=/three\n";
  EXPECT_EQ(FService.GetDaemonPath(), "/two words");
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Reading config file /etc/VellumarkCL.conf\n"
            "Daemon path from conf: /one\nDaemon path from conf: /two words\n");
  EXPECT_EQ(FService.Status().DaemonPath, "/two words");
  EXPECT_FALSE(FService.Status().DaemonPathExists);
}

TEST_F(GuardianServiceTest, NeverRunsItselfAsTheDaemon) {
  FFakes.Files.Files = {{kConf, std::string("daemon=") + kOwnPath}};
  EXPECT_THAT(TickAfter(0), ElementsAre(kPs));
  EXPECT_THAT(DetailedLog(),
              EndsWith("<br>Exception in watchdog tick: The daemon's path is the Guardian's own: "
                       "/opt/guard/VellumarkGuardian"));
  EXPECT_EQ(FService.Status().Watchdog.Rounds, 1) << "shown although a step failed";
  TFakeFileSystem files;
  files.Files = {{"/x/guard", ""}, {kConf, "daemon=/d"}};
  EXPECT_EQ(TDaemonPath("/x/guard", "/etc", files).Get(), "/d") << "a renamed Guardian";
  files.Files.erase(kConf);
  EXPECT_THROW((void)TDaemonPath("/x/guard", "/etc", files).Get(), SoftException);
}

// A file system on which the daemon's file comes and goes, and which may stand still.
class TSlowFileSystem final : public TFakeFileSystem {
 public:
  bool FileExists(const std::string& /*path*/) const override {
    const bool exists = Exists;
    while (StandsStill) SystemClock().Sleep(milliseconds(1));
    return exists;
  }

  std::atomic<bool> Exists = false, StandsStill = false;
};

TEST(DaemonPathTest, IsLookedAtForEachPageUnlessTheLookStandsStill) {
  TSlowFileSystem files;
  TDaemonPath path(kOwnPath, "/etc", files);
  for (const bool exists : {true, false, true}) {
    files.Exists = exists;
    EXPECT_TRUE(Eventually([&] { return path.Seen().Exists == exists; }));
  }
  files.StandsStill = true;
  files.Exists = false;
  for (int page = 0; page < 10'000; ++page) EXPECT_TRUE(path.Seen().Exists);
  EXPECT_THROW(path.Get(), SoftException);
  files.StandsStill = false;
  EXPECT_TRUE(Eventually([&] { return !path.Seen().Exists; }));
}

TEST_F(GuardianServiceTest, NeitherStartsNorEndsADaemonThatItCannotSee) {
  FAnswers[kPs] = {"", "Error executing ps", true};
  StartWithoutTimer();
  FFakes.Scheduler->MutexOK = FFakes.Scheduler->PipeOK = false;
  for (int tick = 0; tick < 12; ++tick) EXPECT_THAT(TickAfter(1'000), ElementsAre(kPs));
  EXPECT_THAT(*FService.Status().StatusText, EndsWith(", ServiceOK=?, PID="));
  EXPECT_THAT(FFakes.SystemLog, ElementsAre("Process list cannot be read - not known whether the "
                                            "service runs."));
}

TEST_F(GuardianServiceTest, HoldsNoLookThatFailedAndNoLineOfItsOwnForTheDaemon) {
  DaemonRunsAs(
      "77 1 0 VellumarkCL\n77 root VellumarkCL\n1000 77 1 VellumarkCL\nx 1 VellumarkCL /RUN\n"
      "x 2 VellumarkCL <defunct>\nx 3 [VellumarkCL]\nx 4 grep \"VellumarkCL\"\nroot 5 77");
  StartWithoutTimer();
  FFakes.Scheduler->Throws = true;
  for (int tick = 0; tick < 12; ++tick) EXPECT_THAT(TickAfter(1'000), ElementsAre(kPs));
  EXPECT_THAT(*FService.Status().StatusText, EndsWith(", ServiceOK=Y, PID=5"));
}

TEST_F(GuardianServiceTest, JudgesNothingThatTheEndOfTheProcessCutsShort) {
  FAnswers[kPs] = {"is cut short by the end", {}};
  EXPECT_THAT(TickAfter(0), ElementsAre(kPs));
  FService.RequestStart();
  EXPECT_THAT(TickAfter(0), ElementsAre(kPs)) << "no step begins any more";
  EXPECT_THAT(FFakes.SystemLog, IsEmpty());
  EXPECT_EQ(FService.Status().Watchdog.Rounds, 0);
  EXPECT_THAT(DetailedLog(), IsEmpty());
}

TEST_F(GuardianServiceTest, StartsADeadDaemonAndLooksAgainAtOnce) {
  FAnswers[kStart] = {"<out>", "Error executing: no <shell>"};
  FAnswers[kPs] = {"0", {}};
  EXPECT_THAT(TickAfter(0), ElementsAre(kPs, kPlainPs, kStart));
  EXPECT_THAT(DetailedLog(), EndsWith("<br>Error executing: no &lt;shell&gt;<br>Executed " +
                                      kDaemon + " start, Result: &lt;out&gt;"));
  EXPECT_THAT(ShortLog(), HasSubstr("  ERROR: Service not running - need to start service."));
  EXPECT_THAT(ShortLog(), EndsWith("  INFO: Starting service/daemon in " + kDaemon));
  FAnswers[kStart] = {std::string(1'000'000, 'x'), {}};
  TickAfter(0);
  EXPECT_LT(DetailedLog().size(), 20'000U);
  FFakes.SystemLogIsFull = true;
  FService.RequestStart();
  DaemonRunsAs("5");
  EXPECT_THAT(TickAfter(0), ElementsAre(kStart, kPs));
  EXPECT_THAT(DetailedLog(), HasSubstr("The system log takes no entries; the next one stands here "
                                       "only.<br>" +
                                       DateTimeToStr(FFakes.Clock.Now()) + "  INFO"));
  EXPECT_THAT(TickAfter(0), IsEmpty());
  EXPECT_THAT(FFakes.SystemLog, ElementsAre("Service not running - need to start service."));
}

// Throttled as the system log is, to one in ten minutes.
TEST_F(GuardianServiceTest, TellsOfTroubleAndOfTheRecoveryFromWhatItToldOf) {
  FFakes.NotifyProblems = {"<failed>"};
  std::string told;
  for (const std::string pid : {"5", "", "6 no pipe", "6", "", "7"}) {
    DaemonRunsAs(pid);
    FFakes.Scheduler->PipeOK = !pid.ends_with("no pipe");
    TickAfter(61'000);
    told += std::to_string(FFakes.Told.size());
  }
  EXPECT_EQ(told, "011222");
  using TNotice = std::pair<TNoticeKind, std::string>;
  EXPECT_THAT(FFakes.Told,
              ElementsAre(TNotice(TNoticeKind::Error, FFakes.SystemLog.at(0)),
                          TNotice(TNoticeKind::Recovered, "All checks are well again.")));
  EXPECT_THAT(FFakes.ToldStatus, StartsWith("Status at "));
  EXPECT_THAT(DetailedLog(), HasSubstr("<br>&lt;failed&gt;<br>"));
}

TEST_F(GuardianServiceTest, AHealthyDaemonCostsOneProcessListAMinuteOfSteadyTime) {
  for (const char* const refusal : {"unsupported", "invalid", "unrecognized"}) {
    const auto shell = [=](auto&, int) { return "ps: " + std::string(refusal) + " option"; };
    EXPECT_EQ(ListDaemonProcesses(shell, 5, TPsOptions::Columns).Options, TPsOptions::Plain);
  }
  FAnswers[kPs] = {"error: unsupported option", {}};
  FFakes.Scheduler->LastPulse = 1;
  FAnswers[kPlainPs] = {"root 5 VellumarkCL" + std::string(1'000'000, 'x'), {}};
  EXPECT_THAT(TickAfter(0), ElementsAre(kPs, kPlainPs));
  EXPECT_EQ(FService.Status().ProcessListTime, FFakes.Clock.Now());
  EXPECT_LE(FService.Status().ProcessList->size(), kShownOutputBytes + 100);
  EXPECT_THAT(TickAfter(50'000), IsEmpty());
  FFakes.Clock.SetWall(FFakes.Clock.Now() + 1);
  EXPECT_THAT(TickAfter(9'999), IsEmpty());
  FFakes.Clock.SetWall(FFakes.Clock.Now() - 2);
  EXPECT_THAT(TickAfter(2), ElementsAre(kPlainPs));
  EXPECT_THAT(*FService.Status().StatusText,
              EndsWith(": MutexOK=Y, PipeStatusOK=Y, ServiceOK=Y, PID=5"));
  FFakes.Scheduler->PipeOK = false;
  EXPECT_THAT(TickAfter(0), ElementsAre(kPlainPs));
  const auto history = FService.Status().History->Get();
  const TMinute* const minute = history->Find(UnixSeconds(FFakes.Clock.UtcNow()) / 60);
  EXPECT_EQ(minute->Seen, TMinute::kLooked | TMinute::kPipeFailed);
  EXPECT_EQ(minute->PulseAgeSec, 60);
}

TEST_F(GuardianServiceTest, RestartsAHungDaemonStepByStepAndCountsIt) {
  DaemonRunsAs("5");
  StartWithoutTimer();
  FFakes.Clock.Advance(milliseconds(4'000));
  EXPECT_FALSE(FService.Status().Watchdog.CheckAgeSec);
  EXPECT_NEAR(FService.Status().Watchdog.PulseAgeSec, 4, 0.01);
  FAnswers["kill -9 5 @20"] = {"No such process", {}};
  FFakes.Scheduler->MutexOK = FFakes.Scheduler->PipeOK = false;
  FFakes.Scheduler->LastPulse = 9;
  std::vector<std::string> commands;
  for (int tick = 0; tick < 12; ++tick) {
    FFakes.Scheduler->PipeOK = tick >= 10;
    if (tick == 10) FService.RequestKill();
    for (const std::string& command : TickAfter(1'000)) {
      if (command != kPs) commands.push_back(command.substr(0, 10));
    }
  }
  EXPECT_THAT(commands, ElementsAre(kStop.substr(0, 10), "kill 5 @20", "kill 5 @20", "kill 5 @20",
                                    "kill -9 5 ", "killall -9", "killall -9", "kill -9 5 ",
                                    "killall -9", "kill -9 5 ", "killall Ve"));
  EXPECT_EQ(FFakes.Scheduler->Sent,
            std::vector<TSyncCommMessages>(12, TSyncCommMessages::msgStartTimer));
  EXPECT_THAT(ShortLog(), HasSubstr("  ERROR: Need to restart Vellumark_Service<br>"));

  FFakes.Clock.Advance(milliseconds(500));
  const TWatchdogReading seen = FService.Status().Watchdog;
  EXPECT_EQ(std::tie(seen.MutexOK, seen.PipeOK, seen.ServiceOK, seen.Pid, seen.Pulse, seen.Rounds),
            std::make_tuple(false, true, true, "5", 9, 12));
  EXPECT_EQ(std::tie(seen.Restarts, seen.RestartAttempts, seen.MutexFailures, seen.PipeFailures),
            std::make_tuple(1, 7, 12, 0));
  const auto& [start, stop, terminate, kill] = seen.Actions;
  EXPECT_EQ(std::tie(start.Total, stop.Total, terminate.Total, kill.Total),
            std::make_tuple(0, 1, 3, 7));
  EXPECT_FALSE(start.LastAgeSec);
  const double ages[] = {*seen.CheckAgeSec, seen.PulseAgeSec, *kill.LastAgeSec, *stop.LastAgeSec,
                         seen.UptimeSec};
  EXPECT_THAT(ages, testing::Pointwise(testing::DoubleNear(0.01), {0.5, 0.5, 0.5, 6.5, 16.5}));
}

TEST_F(GuardianServiceTest, LooksAndNeitherStartsNorEndsDuringAHold) {
  DaemonRunsAs("5");
  StartWithoutTimer();
  FFakes.Scheduler->MutexOK = false;
  for (int tick = 0; tick < 8; ++tick) TickAfter(1'000);
  FService.Hold(std::chrono::minutes(5));
  FService.Hold(std::chrono::minutes(1));
  EXPECT_THAT(TickAfter(0), ElementsAre(kPs)) << "the next step would be a kill";
  EXPECT_THAT(ShortLog(), EndsWith("  ERROR: Mutex not OK - start timer command sent to service."));
  EXPECT_EQ(FService.Status().Watchdog.HoldLeftSec, 60);
  for (int tick = 0; tick < 5; ++tick) EXPECT_THAT(TickAfter(10'000), ElementsAre(kPs));
  FAnswers[kPs] = {};
  EXPECT_THAT(TickAfter(9'999), ElementsAre(kPs)) << "the last millisecond";
  EXPECT_THAT(DetailedLog(),
              HasSubstr("need to start service.<br>Nothing is done: on hold until "));
  FService.RequestStart();
  EXPECT_THAT(TickAfter(0), ElementsAre(kStart, kPs)) << "what somebody asks for";
  // It ended, and the daemon that somebody is starting has its full time.
  DaemonRunsAs("6");
  EXPECT_THAT(TickAfter(1), ElementsAre(kPs));
  EXPECT_FALSE(FService.Status().Watchdog.HoldLeftSec);
  EXPECT_THAT(ShortLog(), HasSubstr("  INFO: The hold is over, the service is started and ended"));
  for (int tick = 0; tick < 4; ++tick) EXPECT_THAT(TickAfter(10'000), ElementsAre(kPs));
  EXPECT_THAT(TickAfter(10'000), ElementsAre(kPs, kStop));

  FService.Hold(std::chrono::minutes(1440));
  FAnswers[kPs] = {};
  EXPECT_THAT(TickAfter(600'001), ElementsAre(kPs));
  FService.Release();
  EXPECT_THAT(TickAfter(0), ElementsAre(kPs, kStart));
  EXPECT_THAT(TickAfter(600'001), ElementsAre(kPs, kStart));
  const auto kinds = [this] {
    std::string text;
    const auto record = FService.Status().History->Get();
    for (std::uint32_t i = 0; i < record->EventCount; ++i) {
      text += std::string(NameOf(record->Events.at(i).Kind)) + " ";
    }
    return text;
  };
  EXPECT_THAT(kinds(),
              EndsWith("hold error error start release error error stop hold error release "
                       "error start error start "));
  std::string told;
  for (const auto& [kind, text] : FFakes.Told) told += std::to_string(static_cast<int>(kind));
  EXPECT_EQ(told, "034340") << "errors (0) outside of the holds (from 3 to 4), one in 10 minutes";
}

TEST_F(GuardianServiceTest, CarriesEachRequestOutOnce) {
  DaemonRunsAs("5");
  TickAfter(0);
  FService.RequestKill();
  FService.RequestTerminate();
  FService.RequestStop();
  FService.RequestStart();
  EXPECT_THAT(TickAfter(0), ElementsAre(kStart, kStop, "kill 5 @20", "kill -9 5 @20", kPs));
  EXPECT_THAT(ShortLog(), MatchesRegex(".*INFO: Trying to stop the service normally.<br>.*"
                                       "INFO: Trying to terminate the service.<br>.*"
                                       "INFO: Trying to kill the service."));
  EXPECT_THAT(TickAfter(0), IsEmpty());
}

TEST_F(GuardianServiceTest, KillsByNameAtOnceWhenThePidIsGone) {
  for (const char* answer : {"sh: kill: (42) - No such process", "NO SUCH PROCESS"}) {
    DaemonRunsAs("42");
    TickAfter(60'001);
    FAnswers["kill -9 42 @20"] = {answer, {}};
    FService.RequestKill();
    EXPECT_THAT(TickAfter(0), ElementsAre("kill -9 42 @20", "killall VellumarkCL @20"));
    FService.RequestTerminate();
    EXPECT_THAT(TickAfter(0), IsEmpty());
    EXPECT_THAT(DetailedLog(), HasSubstr("terminate the service.<br>No PID known to terminate"));
  }
}

TEST_F(GuardianServiceTest, ARequestIsCarriedOutASecondLaterAndThenTheTimerIsSlowAgain) {
  const auto rounds = [this] { return FService.Status().Watchdog.Rounds; };
  Start("MUTEX=/m\n");
  FAnswers[kStop] = {"sees another click", {}};
  FService.RequestStop();
  EXPECT_EQ(TimerRunsAfter(1'000), kStop);
  EXPECT_TRUE(Eventually([&] { return rounds() == 1; }));
  EXPECT_EQ(TimerRunsAfter(1'000), kStart);
  EXPECT_TRUE(Eventually([&] { return rounds() == 2; }));
  for (int second = 1; second <= 10; ++second) {
    EXPECT_EQ(rounds(), 2) << second;
    FFakes.Clock.Advance(milliseconds(1'000));
    CheckSynchronize(milliseconds(3));  // Time for a tick that must not come.
  }
  EXPECT_TRUE(Eventually([&] { return rounds() == 3; }));
  FService.Hold(std::chrono::minutes(1));
  FFakes.Clock.Advance(milliseconds(1'000));
  EXPECT_TRUE(Eventually([&] { return rounds() == 4; }));
  FService.Release();
  FFakes.Clock.Advance(milliseconds(1'000));
  EXPECT_TRUE(Eventually([&] { return rounds() == 5; }));
}

TEST_F(GuardianServiceTest, SaysThatItIsPausedContinuedOrStopped) {
  StartWithoutTimer();
  EXPECT_THAT(ShortLog(), EndsWith("  INFO: Guardian Service PAUSED"));
  EXPECT_TRUE(FService.Continue());
  EXPECT_THAT(ShortLog(), EndsWith("  INFO: Guardian Service CONTINUED"));
  EXPECT_EQ(TimerRunsAfter(10'000), kPs);
  FService.Stop();
  EXPECT_THAT(DetailedLog(), EndsWith("<br>Guardian stopped, v1.50"));
}

TEST(DaemonPathTest, IsFoundBesideTheGuardianInEveryLayout) {
  const std::map<std::string, std::string> daemons = {
      {"/usr/local/bin/VellumarkGuardian", "/usr/local/bin/VellumarkCL"},
      {"/share/.qpkg/VellumarkGuardian/VellumarkGuardian", "/share/.qpkg/VellumarkCL/VellumarkCL"},
      {"/opt/VellumarkGuardian/bin/VellumarkGuardian", "/opt/Vellumark/bin/VellumarkCL"},
      {"/a/VellumarkGuardian-1.50/VellumarkGuardian", "/a/VellumarkCL-1.50/VellumarkCL"},
      {"/opt/vellumarkguardian/guard", "/opt/vellumarkguardian/guard"},
      {"/x/VellumarkGuardian/VellumarkGuardian/VellumarkGuardian",
       "/x/Vellumark/VellumarkCL/VellumarkCL"},
  };
  for (const auto& [own, daemon] : daemons) EXPECT_EQ(DaemonPathBeside(own), daemon);
}

TEST(DaemonConfDirTest, FollowsTheLayoutOfTheBox) {
  const std::string store = "/volume2/@appstore/Vellumark/usr/bin/VellumarkGuardian";
  const std::string appData = "/volume2/@appdata/Vellumark";
  const std::string plugins = "/volume1/.@plugins/etc";
  const std::tuple<std::string, std::set<std::string>, std::string, TDaemonConfDir> cases[] = {
      {kOwnPath, {appData}, "", {"/etc", false}},
      {kOwnPath, {plugins}, "", {plugins, false}},
      {kOwnPath, {plugins}, "/etc", {"/etc", false}},
      {store, {}, "", {"/etc", false}},
      {store, {appData}, "", {appData, true}},
      {store, {appData, plugins}, "", {plugins, true}},
      {store, {appData, plugins}, appData, {appData, true}},
  };
  for (const auto& [own, directories, confIn, expected] : cases) {
    TFakeFileSystem files;
    files.Directories = directories;
    files.Files[confIn + "/VellumarkCL.conf"] = "";
    const auto [directory, isAppData] = FindDaemonConfDir(own, files);
    EXPECT_EQ(std::tie(directory, isAppData), std::tie(expected.Directory, expected.IsAppData));
  }
}

TEST(RealFileSystemTest, TellsFilesFromFoldersAndSaysWhyItCannotRead) {
  const TTempFolder folder;
  folder.Write("file", "text");
  const TFileSystemView& files = RealFileSystem();
  EXPECT_TRUE(files.FileExists(folder.Path("file")) && !files.FileExists(folder.Path()));
  EXPECT_TRUE(files.DirectoryExists(folder.Path()) && !files.DirectoryExists(folder.Path("file")));
  EXPECT_EQ(files.ReadText(folder.Path("file")), "text");
  EXPECT_THROW((void)files.ReadText(folder.Path("missing")), ESystemError);
  EXPECT_THROW((void)files.ReadText(folder.Path()), ESystemError);
  ASSERT_EQ(::mkfifo(folder.Path("pipe").c_str(), 0600), 0);
  EXPECT_EQ(files.ReadText(folder.Path("pipe")), "") << "a pipe without a writer does not block";
}

std::atomic<int> toldSyslog = 0;  // The priorities of what it was told, a digit each.
std::atomic<bool> syslogStandsStill = false;

const std::string kNasty = "Path $(touch x) `id` \"quoted\" 'single' ; | & \\ \n%s -n";

// The tools are scripts that write down their arguments, each in brackets. The first one then
// stands still for as long as it may, or until there is a file "go".
TEST(SystemLogTest, GivesTheFirstToolItsPlainArgumentsAndWaitsForNone) {
  const TTempFolder folder;
  const auto install = [&](const std::string& name, const std::string& ending) {
    folder.Write(name, "#!/bin/sh\nfor a in \"$@\"; do printf '[%s]' \"$a\"; done >> '" +
                           folder.Path("told") + "'\n" + ending);
    std::filesystem::permissions(folder.Path(name), std::filesystem::perms::owner_all);
  };
  const auto told = [&](const std::string& text) {
    return Eventually([&] { return folder.Read("told").ends_with(text); });
  };
  install("synolog", "");
  folder.Write("write_log", "");
  {
    const TSystemLogWriter writer({folder.Path("write_log"), folder.Path("synolog")});
    const std::string text = "[0x11100000][" + kNasty + "]";
    EXPECT_TRUE(WriteSystemLog(kNasty, TSystemLogKind::Error));
    EXPECT_TRUE(WriteSystemLog(kNasty, TSystemLogKind::Warning));
    EXPECT_TRUE(WriteSystemLog(kNasty, TSystemLogKind::Information));
    EXPECT_TRUE(told("[sys][err]" + text + "[sys][warn]" + text + "[sys][info]" + text));
    install("write_log", "while [ ! -e '" + folder.Path("go") + "' ]; do sleep 0.01; done\n");
    EXPECT_TRUE(WriteSystemLog(kNasty, TSystemLogKind::Information));
    EXPECT_TRUE(told("[" + kNasty + "][4]"));
    for (int entry = 0; entry < 300; ++entry) {
      EXPECT_EQ(WriteSystemLog("entry", TSystemLogKind::Error), entry < 256) << entry;
    }
    folder.Write("go", "");
    EXPECT_TRUE(told("[entry][1][The system log took no entries; dropped: 44][2]"));
    EXPECT_TRUE(WriteSystemLog("last words", TSystemLogKind::Information));
  }
  EXPECT_TRUE(folder.Read("told").ends_with("[last words][4]"));
  install("write_log", "exit 3");
  {
    const TSystemLogWriter writer({folder.Path("write_log"), folder.Path("synolog")});
    toldSyslog = 0;
    EXPECT_TRUE(WriteSystemLog("dead daemon", TSystemLogKind::Error));
    EXPECT_TRUE(WriteSystemLog("fine", TSystemLogKind::Information));
    EXPECT_TRUE(Eventually([] { return toldSyslog == 4346; })) << "that it failed, and each entry";
    syslogStandsStill = true;
    EXPECT_TRUE(WriteSystemLog("for nobody", TSystemLogKind::Error));
  }
  EXPECT_EQ(CountThreads("SystemLog"), 1) << "it is left behind";
  EXPECT_FALSE(WriteSystemLog("too late", TSystemLogKind::Error));
  syslogStandsStill = false;
  EXPECT_TRUE(Eventually([] { return CountThreads("SystemLog") == 0; }));
}

TEST(RunCommandTest, SaysWhyACommandDidNotEndByItself) {
  const TSettingsBackup settings;
  TCancellation stopping;
  const auto problem = [&](int timeoutSec) {
    return RunCommand("echo said; sleep 0.1", timeoutSec, stopping).Problem;
  };
  EXPECT_EQ(problem(60), "");
  EXPECT_EQ(problem(0), "Ended after 0 seconds or for too much output: echo said; sleep 0.1");
  const TShellOutcome unfit = RunCommand(std::string("echo \0", 6), 60, stopping);
  EXPECT_TRUE(unfit.CouldNotRun);
  EXPECT_THAT(unfit.Problem, testing::StartsWith("Error executing echo "));
  stopping.Cancel();
  EXPECT_EQ(problem(60), "");
}

}  // namespace
}  // namespace guardian

// In the place of the library's.
extern "C" void syslog(int priority, const char* /*format*/, ...) {
  while (guardian::syslogStandsStill) guardian::SystemClock().Sleep(std::chrono::milliseconds(1));
  guardian::toldSyslog = 10 * guardian::toldSyslog + priority;
}
