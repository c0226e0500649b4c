#include "diagnostics/job_mutex.h"

#include <gmock/gmock.h>

#include <atomic>
#include <map>
#include <optional>
#include <stdexcept>

#include "common/Exceptions.h"
#include "diagnostics/JobMutexes.h"
#include "diagnostics/jobs/MutexGuardian.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::int32_t kOwner = 4711;

// Threads are silent for as long as a test says; the main thread is not silent unless it says so.
class TMutexGuardianTest : public TRegistryTest {
 protected:
  TMutexGuardianTest() { Silence(KZCP::MainThreadId(), milliseconds(0)); }

  // The thread's silence at every pass from now on; none for a thread without a record.
  void Silence(KZCP::TThreadId thread, std::optional<milliseconds> silence,
               std::int64_t allowance = 0) {
    FSilences.erase(thread);
    if (silence) FSilences[thread] = {*silence, allowance};
  }

  void FreeingPass() {
    FClock.Advance(seconds(20));
    FreeInactiveMutexes(TPassMoment::Of(FClock), FRegistry, LookUp());
  }
  void ReportingPass() {
    FClock.Advance(seconds(20));
    ReportInactivity(TPassMoment::Of(FClock), FRegistry, LookUp());
  }
  void ReportingPasses(int count) {
    for (int i = 0; i < count; ++i) ReportingPass();
  }
  void FreeingPasses(int count) {
    for (int i = 0; i < count; ++i) FreeingPass();
  }

 private:
  TCheckpointLookup LookUp() {
    return [this](KZCP::TThreadId thread) -> KZCP::TCPTimes {
      const auto found = FSilences.find(thread);
      if (found == FSilences.end()) return {};
      return {FClock.TickCount() - found->second.first.count(), found->second.second};
    };
  }

  std::map<KZCP::TThreadId, std::pair<milliseconds, std::int64_t>> FSilences;
};

TEST_F(TMutexGuardianTest, FreesOnTheFourthPassBeyondTheLimit) {
  struct TCase {
    const char* Name;
    int Threshold;
    std::optional<milliseconds> Silence;
    std::int64_t Allowance;
    bool Freed;
  };
  const TCase cases[] = {
      {"at the limit", 10, milliseconds(600'999), 0, false},
      {"above the limit", 10, milliseconds(601'000), 0, true},
      {"at the limit with allowance", 10, milliseconds(605'000), 5, false},
      {"above the limit with allowance", 10, milliseconds(606'000), 5, true},
      {"no record", 10, std::nullopt, 0, true},
      {"no record on a machine just booted", 10'000'000, std::nullopt, 0, true},
      {"switched off", 0, std::nullopt, 0, false},
      {"one minute", 1, milliseconds(61'000), 0, true},
  };
  for (const TCase& c : cases) {
    SCOPED_TRACE(c.Name);
    FLog.clear();
    FRegistry.ReportNeeded = false;
    FRegistry.Settings.JobMutexInactivityMinutes = c.Threshold;
    Silence(kOwner, c.Silence, c.Allowance);
    const auto entry = Register("P");
    const TFileHandle handle = entry->Info.Handle;
    FreeingPasses(3);
    EXPECT_TRUE(IsFileOpen(handle));
    EXPECT_EQ(entry->Info.Handle, handle);
    FreeingPasses(2);
    EXPECT_EQ(IsFileOpen(handle), !c.Freed);
    EXPECT_EQ(entry->Info.Handle, c.Freed ? 0 : handle);
    EXPECT_EQ(entry->Info.FreedAt > 0, c.Freed);
    EXPECT_EQ(FRegistry.ReportNeeded, c.Freed);
    EXPECT_THAT(FLog, SizeIs(c.Freed ? 1 : 0));
    EXPECT_THAT(FLog, Each(std::string("Forced closing Job Mutex due to inactivity")));
    if (!c.Freed) CloseMutex(entry->Info, FClock);
  }
}

TEST_F(TMutexGuardianTest, StartsAnewWhenTheOwnerMovesOn) {
  const auto entry = Register("P");
  FreeingPasses(3);
  Silence(kOwner, seconds(600));
  FreeingPass();
  Silence(kOwner, seconds(3600));
  FreeingPasses(3);
  EXPECT_GT(entry->Info.Handle, 0);
  FreeingPass();
  EXPECT_EQ(entry->Info.Handle, 0);
}

TEST_F(TMutexGuardianTest, AHandleThatCannotBeClosedEndsOnePassOnly) {
  FRegistry.Register("bad.mutex", "Bad", 987'654'321, {}, {}, 0);
  Entries().back()->Info.OwnerThread = kOwner;
  const auto good = Register("Good");
  FreeingPasses(4);
  EXPECT_GT(good->Info.Handle, 0);
  EXPECT_THAT(FErrorLog.Text(), HasSubstr("Invalid handle passed to CloseHandle"));
  FreeingPass();
  EXPECT_EQ(good->Info.Handle, 0);
}

TEST_F(TMutexGuardianTest, EachFurtherEntryGetsAReportOfWhatWasFreed) {
  std::vector<TFileHandle> freed;
  Silence(kOwner, seconds(725));
  Silence(1, seconds(0));
  const auto first = Register("A", kOwner, [&](TFileHandle handle) { freed.push_back(handle); });
  Register("B", 1);
  Register("C", 1);
  FreeingPasses(4);
  ReportingPass();
  EXPECT_THAT(freed, ElementsAre(first->Info.RegisteredHandle));
  EXPECT_THAT(FReasons, SizeIs(3));
  EXPECT_THAT(FReasons,
              Each(std::string("Job Mutex freed for profile A, Inactive For 00:12:05\n")));
  ReportingPass();
  EXPECT_THAT(freed, SizeIs(1));
  EXPECT_THAT(FReasons, SizeIs(3));
}

TEST_F(TMutexGuardianTest, CallbacksMayChangeTheListDuringTheWalk) {
  std::shared_ptr<TMutexEntry> second;
  const auto onFreed = [&](TFileHandle) {
    FRegistry.Unregister(0, 1);
    FRegistry.Unregister(second->Info.Handle, 2);
    Register(
        "New", kOwner, [](TFileHandle) { FAIL() << "not freed"; }, 7);
  };
  Register("A", kOwner, onFreed, 1);
  second = Register("B", 1, {}, 2);
  Register("C", 1, {}, 3);
  Silence(1, seconds(0));
  const TFileHandle handleOfB = second->Info.Handle;
  FreeingPasses(4);
  ReportingPass();
  const std::string freed = "Job Mutex freed for profile A, thread no longer exists\n";
  EXPECT_THAT(FReasons, ElementsAre(freed, freed));  // In A's turn and in C's.
  EXPECT_THAT(Entries(), SizeIs(2));
  CloseHandle(handleOfB);
}

TEST_F(TMutexGuardianTest, AFailingCallbackIsAnnouncedOnceAndCostsNoReport) {
  const auto onFreed = [](TFileHandle) { throw std::runtime_error("callback failed"); };
  Register("A", kOwner, onFreed);
  Register("B", kOwner, onFreed);
  FreeingPasses(4);
  ReportingPass();
  EXPECT_TRUE(FRegistry.ReportingMalfunction);
  EXPECT_THAT(FReasons, SizeIs(2));
  EXPECT_THAT(FErrorLog.Text(), HasSubstr("callback failed"));
  FLog.clear();
  FreeingPasses(2);
  EXPECT_THAT(FLog, ElementsAre("Mutex Guardian Reporting Thread Malfunction"));
}

TEST_F(TMutexGuardianTest, ReportsASilentMainThreadTenTimes) {
  struct TCase {
    const char* Name;
    std::optional<milliseconds> Silence;
    int Reports;
    const char* Reason;
  };
  const TCase cases[] = {
      {"at the limit", milliseconds(120'999), 0, ""},
      {"above the limit", milliseconds(121'000), 10, "Main Thread Inactive For 00:02:01\n"},
      {"no record", std::nullopt, 10, "Main Thread no longer seems to exist"},
  };
  Silence(1, seconds(0));
  Register("P", 1);
  for (const TCase& c : cases) {
    SCOPED_TRACE(c.Name);
    FReasons.clear();
    {
      const TKZLockGuard lock(FRegistry.Lock);
      FRegistry.Reporting = {};
    }
    Silence(KZCP::MainThreadId(), c.Silence);
    ReportingPasses(3);
    EXPECT_THAT(FReasons, IsEmpty());
    ReportingPass();
    EXPECT_THAT(FReasons, SizeIs(c.Reports > 0 ? 1 : 0));
    ReportingPasses(8);  // Two minutes in which nothing is due, then strikes.
    EXPECT_THAT(FReasons, SizeIs(c.Reports > 0 ? 1 : 0));
    ReportingPasses(200);
    EXPECT_THAT(FReasons, SizeIs(c.Reports));
    EXPECT_THAT(FReasons, Each(std::string(c.Reason)));
  }
}

TEST_F(TMutexGuardianTest, CountsButNeverWritesAMainThreadReportForAnEmptyRegistry) {
  Silence(KZCP::MainThreadId(), seconds(3600));
  ReportingPasses(4);
  EXPECT_TRUE(FRegistry.ReportNeeded);
  EXPECT_THAT(FReasons, IsEmpty());
  const TKZLockGuard lock(FRegistry.Lock);
  EXPECT_EQ(FRegistry.Reporting.MainReports, 1);
}

TEST_F(TMutexGuardianTest, SilentOwnersShareTheTimeOfTheLastReport) {
  Silence(kOwner, seconds(121));
  const auto first = Register("A");
  const auto second = Register("B", 2);
  ReportingPasses(3);
  EXPECT_EQ(second->Info.MainStrikes, 3);
  ReportingPass();
  const std::string reason = "Profile A Main Thread Inactive For 00:02:01\n";
  EXPECT_THAT(FReasons, ElementsAre(reason, reason));
  EXPECT_EQ(second->Info.MainStrikes, 0);
  first->Info.InactivityReports = 10;
  ReportingPasses(10);  // Two minutes, three strikes and one.
  EXPECT_THAT(FReasons, SizeIs(3));
  EXPECT_EQ(FReasons.back(), "Profile B Main Thread no longer exists");
}

TEST_F(TMutexGuardianTest, AZeroThresholdSwitchesTheInactivityReportsOff) {
  FRegistry.Settings.MainThreadInactivityMinutes = 0;
  Silence(KZCP::MainThreadId(), std::nullopt);
  Register("A");
  ReportingPasses(20);
  EXPECT_THAT(FReasons, IsEmpty());
}

TEST_F(TMutexGuardianTest, ReportsTheAgeOnceInsteadOfTheSilence) {
  FRegistry.Settings.MaxAgeMinutes = 60;
  Silence(kOwner, seconds(0));
  const auto entry = Register("A");
  ReportingPasses(179);
  EXPECT_THAT(FReasons, IsEmpty());
  FClock.Advance(milliseconds(21'000));
  Silence(kOwner, seconds(121));
  ReportingPass();
  EXPECT_THAT(FReasons, ElementsAre("Profile A Job Mutex Age = 01:00:21\n"));
  EXPECT_EQ(entry->Info.MainStrikes, 0);
  ReportingPass();
  EXPECT_THAT(FReasons, SizeIs(1));
}

TEST_F(TMutexGuardianTest, MakesItsFirstPassAfterTwentySecondsAndEndsAtOnce) {
  static std::atomic<int> passes;
  passes = 0;
  const std::int64_t start = FClock.TickCount();
  TMutexGuardianThread thread(
      "Guardian", FRegistry,
      [](const TPassMoment&, TMutexRegistry&, const TCheckpointLookup&) noexcept { ++passes; });
  thread.Start();
  EXPECT_TRUE(Eventually([&] {
    FClock.Advance(milliseconds(25));
    return passes > 0;
  }));
  EXPECT_GE(FClock.TickCount() - start, 20'000);
  thread.Join();  // Time stands still: only the request to end can wake it.
}

TEST_F(TRegistryTest, UnregistersByHandleOrNumber) {
  Register("A", kOwner, {}, 1);
  const TFileHandle handle = Entries().back()->Info.Handle;
  const auto open = Register("B", kOwner, {}, 2);
  const TFileHandle openHandle = open->Info.Handle;
  const auto freed = Register("C", kOwner, {}, 3);
  CloseMutex(freed->Info, FClock);

  FRegistry.Unregister(handle, 99);
  EXPECT_THAT(Entries(), ElementsAre(open, freed));
  EXPECT_TRUE(IsFileOpen(handle));  // The job closes it itself.
  CloseHandle(handle);
  FRegistry.Unregister(freed->Info.RegisteredHandle, 3);
  EXPECT_THAT(Entries(), ElementsAre(open));
  EXPECT_THAT(FLog, IsEmpty());

  FRegistry.Unregister(123'456, 2);
  FRegistry.Unregister(0, 99);
  EXPECT_THAT(Entries(), ElementsAre(open));
  const std::string now = DateTimeToStr(FClock.Now());
  EXPECT_EQ(FErrorLog.Text(), now + " Unable to unregister mutex #123456\n" + now +
                                  " Known Job Mutex List:\nB.mutex\n\n");

  FRegistry.Unregister(0, 2);
  EXPECT_THAT(Entries(), IsEmpty());
  EXPECT_FALSE(IsFileOpen(openHandle));
  EXPECT_TRUE(FRegistry.ReportNeeded);
  EXPECT_THAT(FLog, ElementsAre("Job Mutex still open in call to UnregisterMutex"));
}

TEST_F(TRegistryTest, ForgetsAnEntryThatCannotBeClosed) {
  FRegistry.Register("bad.mutex", "Bad", 987'654'321, {}, {}, 5);
  FRegistry.Unregister(0, 5);
  EXPECT_THAT(Entries(), IsEmpty());
  EXPECT_THAT(FErrorLog.Text(), HasSubstr("UnregisterMutex bad.mutex Exception: Invalid handle"));
}

TEST_F(TRegistryTest, TheCheckAtTerminationEndsAtTheFirstEntry) {
  const auto first = Register("A");
  CloseMutex(first->Info, FClock);
  const auto second = Register("B");
  try {
    CloseMutexesAtTermination(FRegistry, TThreading::Multi);
    ADD_FAILURE() << "surfaced nothing";
  } catch (const KZException& error) {
    EXPECT_EQ(error.Message(), "Mutexes still open: A.mutex\nB.mutex\n");
  }
  EXPECT_THAT(FReasons, ElementsAre("Job Mutex Still Open Upon Program Termination"));
  EXPECT_GT(second->Info.Handle, 0);
  CloseMutexesAtTermination(FRegistry, TThreading::Single);
  EXPECT_EQ(second->Info.Handle, 0);
  EXPECT_THAT(FReasons, SizeIs(1));
  EXPECT_EQ(FRegistry.Register("C", "C", 0, {}, {}, 0), 0);
  EXPECT_THAT(Entries(), IsEmpty());
}

TEST(JobMutexTest, LivesFromItsStartToTheEndOfTheCheckpoints) {
  const TTempFolder folder;
  MutexRegistry().Settings.ReportFolder = folder.Path();
  KZCP::Init();
  EXPECT_EQ(RegisterMutex("Early", "P", 17, {}, {}, 1), 0);
  UnregisterMutex(17, 1);
  for (int round = 0; round < 2; ++round) {
    StartMutexGuardian();
    StartMutexGuardian();
    EXPECT_EQ(RegisterMutex("First", "P", OpenMutexFile(folder), {}, {}, 1), 0);
    InThread([&] { EXPECT_EQ(RegisterMutex("Second", "P", OpenMutexFile(folder), {}, {}, 2), 1); });
    UnregisterMutex(0, 2);
    EXPECT_THROW(KZCP::Fini(&CheckMutexesAtTermination), KZException);  // The first one is open.
    UnregisterMutex(0, 1);
    KZCP::Fini(&CheckMutexesAtTermination);
  }
  EXPECT_THAT(NamesIn(folder), Contains(HasSubstr("Vellumark Run Report ")));
}

TEST(JobMutexTest, ManyThreadsRegisterWhileBothPassesRun) {
  const TTempFolder folder;
  TFakeClock clock;
  TMutexRegistry registry(clock);
  registry.CreateList();
  registry.Settings.ReportFolder = folder.Path();
  const auto job = [&] {
    for (std::int32_t i = 0; i < 100; ++i) {
      const TFileHandle handle = OpenMutexFile(folder);
      registry.Register("M", "P", handle, {}, {}, CurrentThreadId());
      registry.Unregister(0, CurrentThreadId());
    }
  };
  TFunctionThread one("One", job);
  TFunctionThread two("Two", job);
  one.Start();
  two.Start();
  const TCheckpointLookup nobody = [](KZCP::TThreadId) { return KZCP::TCPTimes(); };
  while (!one.Finished() || !two.Finished()) {
    clock.Advance(seconds(20));
    FreeInactiveMutexes(TPassMoment::Of(clock), registry, nobody);
    ReportInactivity(TPassMoment::Of(clock), registry, nobody);
  }
  const TKZLockGuard lock(registry.Lock);
  EXPECT_THAT(registry.Entries(), IsEmpty());
}

}  // namespace
}  // namespace guardian
