#include "webstatus/History.h"

#include <random>

#include "support/TestSupport.h"

namespace guardian {
namespace {

using std::chrono::seconds;

class HistoryTest : public testing::Test {
 protected:
  // "text" once, or "text*3", of each event.
  std::vector<std::string> Events() const {
    std::vector<std::string> events;
    const auto record = FHistory.Get();
    for (std::uint32_t i = 0; i < record->EventCount; ++i) {
      const TEvent& event = record->Events.at(i);
      events.emplace_back(event.Shown());
      if (event.Count > 1) events.back() += "*" + std::to_string(event.Count);
    }
    return events;
  }
  std::int64_t Minute() const { return UnixSeconds(FClock.UtcNow()) / 60; }
  const TMinute* Find(std::int64_t minute) const { return (FFound = FHistory.Get())->Find(minute); }

  TFakeClock FClock;
  THistory FHistory{FClock};
  mutable THistory::TPointer FFound;
};

TEST_F(HistoryTest, CountsWhatIsRepeatedWithinAMinuteAndKeeps200) {
  FHistory.AddEvent(TEventKind::Error, "dead");
  for (const int pause : {10, 60, 61}) {
    FClock.Advance(seconds(pause));
    FHistory.AddEvent(TEventKind::Start, "go");
    FHistory.AddEvent(TEventKind::Error, "dead");
  }
  for (const auto kind : {TEventKind::Info, TEventKind::Hold, TEventKind::Info}) {
    FHistory.AddEvent(kind, "dead");
  }
  EXPECT_THAT(Events(), ElementsAre("dead*3", "go*2", "go", "dead", "dead", "dead", "dead"));
  EXPECT_EQ(FHistory.Get()->Events[0].LastAt - FHistory.Get()->Events[0].FirstAt, 70);
  for (const char* const text :
       {"1", "2", "3", "4", "5", "6", "1", "2", "3", "4", "5", "6", "7", "1"}) {
    FHistory.AddEvent(TEventKind::Warning, text);
  }
  EXPECT_EQ(Events().at(12) + Events().back(), "6*21") << "of the last six";
  for (int i = 0; i < 250; ++i) FHistory.AddEvent(TEventKind::Info, std::to_string(i));
  EXPECT_EQ(Events().size(), 200U);
  EXPECT_EQ(Events().front() + "-" + Events().back(), "50-249");
  FHistory.AddEvent(TEventKind::Info, std::string(175, 'x') + "\U0001F600");
  EXPECT_EQ(Events().back(), std::string(175, 'x'));
  FHistory.AddEvent(TEventKind::Info, std::string(1000, '\x80'));
  TCrew(2, [this](int) {
    for (int i = 0; i < 2'000; ++i) FHistory.AddEvent(TEventKind::Info, "x");
  }).Join();
  EXPECT_EQ(Events().back(), "x*4000");
}

TEST_F(HistoryTest, RemembersTheWorstOfEachMinuteForTwoDays) {
  const std::int64_t first = Minute();
  FHistory.AddRound({true, true, true, 5});
  FHistory.AddRound({false, true, true, 1e9});
  for (const auto kind : {TEventKind::Kill, TEventKind::Hold}) FHistory.AddEvent(kind, "");
  const TMinute* minute = Find(first);
  ASSERT_NE(minute, nullptr);
  EXPECT_EQ(std::tuple(minute->Seen, minute->PulseAgeSec, minute->Actions),
            std::tuple(TMinute::kLooked | TMinute::kMutexFailed, 65'535, 8));
  FClock.Advance(seconds(2'879 * 60));
  FHistory.AddRound({true, true, true, 0});
  EXPECT_NE(Find(first), nullptr);
  EXPECT_EQ(Find(first + 1), nullptr) << "a gap";
  EXPECT_EQ(Find(0), nullptr) << "what was never used";
  FClock.Advance(seconds(60));
  FHistory.AddRound({true, true, false, 0});
  EXPECT_EQ(Find(first), nullptr);
  EXPECT_EQ(Find(Minute())->Seen, TMinute::kLooked | TMinute::kServiceFailed);
}

// Whatever the clock does, a minute has what was seen in it, or nothing.
TEST_F(HistoryTest, ShowsNothingWrongUnderAClockThatIsSet) {
  std::mt19937 random(20'261'121);  // NOLINT(cert-msc51-cpp): the same steps in each run
  std::map<std::int64_t, unsigned> seen;
  for (int step = 0; step < 2'000; ++step) {
    const double jump = std::uniform_real_distribution<double>(-1, 1)(random);
    if (step % 50 == 0) FClock.SetWall(46'347 + jump * 100'000);
    if (step % 7 == 0) FClock.SetWall(FClock.Now() + jump);
    FClock.Advance(seconds(20));
    const bool ok = jump > 0;
    seen[Minute()] |= ok ? 8U : 12U;
    FHistory.AddRound({true, true, ok, 0});
    FHistory.AddEvent(TEventKind::Error, "set");
    ASSERT_TRUE(Minute() <= 0 || Find(Minute()) != nullptr);
    const std::int64_t other = Minute() + static_cast<int>(jump * 4'000);
    if (const TMinute* const minute = Find(other)) {
      // It may have been pushed out meanwhile and seen again since.
      EXPECT_EQ(minute->Seen & ~seen[other], 0U);
    }
  }
  EXPECT_TRUE(RecordOf(BytesOf(*FHistory.Get())));
}

TEST_F(HistoryTest, TakesAnEarlierRunOverAndRefusesBytesOfAnotherLayout) {
  FHistory.AddRound({true, false, true, 7});
  for (int i = 0; i < 199; ++i) FHistory.AddEvent(TEventKind::Stop, "old" + std::to_string(i));
  const std::string bytes = BytesOf(*FHistory.Get());
  THistory next(FClock);
  for (const char* const text : {"a", "b"}) next.AddEvent(TEventKind::Info, text);
  next.AddRound({false, true, true, 3});
  next.TakeOver(*RecordOf(bytes));
  const auto record = next.Get();
  EXPECT_EQ(std::tuple(record->EventCount, record->Events[0].Shown(), record->Events[199].Shown()),
            std::tuple(200U, "old1", "b"));
  const TMinute* const minute = record->Find(Minute());
  EXPECT_EQ(minute->Seen, TMinute::kLooked | TMinute::kMutexFailed | TMinute::kPipeFailed);
  EXPECT_EQ(minute->PulseAgeSec + minute->Actions, 7 + 2);

  EXPECT_FALSE(RecordOf("") || RecordOf(bytes.substr(1)) || RecordOf(bytes + "x"));
  const auto refuses = [&bytes](const std::function<void(THistoryRecord&)>& damage) {
    THistoryRecord damaged = *RecordOf(bytes);
    damage(damaged);
    return !RecordOf(BytesOf(damaged));
  };
  EXPECT_TRUE(refuses([](auto& damaged) { ++damaged.Layout; }));
  EXPECT_TRUE(refuses([](auto& damaged) { damaged.EventCount = 201; }));
  EXPECT_TRUE(refuses([](auto& damaged) { damaged.Events[7].Length = 179; }));
  EXPECT_TRUE(refuses([](auto& damaged) { damaged.Events[7].Kind = TEventKind{kEventKinds}; }));
  EXPECT_TRUE(refuses([](auto& damaged) { damaged.Events[7].FirstAt = INT64_MIN; }));
  EXPECT_TRUE(refuses([](auto& damaged) { damaged.Events[7].LastAt = INT64_MIN; }));
  EXPECT_TRUE(refuses([](auto& damaged) { damaged.Minutes[0].Number = 1; }));
  EXPECT_TRUE(refuses([](auto& damaged) { damaged.Minutes[1].Number = 2'880; }));
}

}  // namespace
}  // namespace guardian
