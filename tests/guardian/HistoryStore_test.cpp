#include "guardian/HistoryStore.h"

#include "guardian/Units.h"
#include "support/TestSupport.h"

namespace guardian {
namespace {

using std::chrono::minutes;

// A store that reads nothing for as long as somebody else has it locked, but what was once there.
class TLockedStore final : public TEmptyStore {
 public:
  std::string ReadString(std::string_view, std::string_view key, std::string_view) override {
    return key == "Opened" ? "at an earlier start" : "";
  }
  explicit TLockedStore(std::unique_ptr<TKZCustomINIFile> store) : FStore(std::move(store)) {}
  void WriteString(std::string_view section, std::string_view key, std::string_view text) override {
    FStore->WriteString(section, key, text);
  }

 private:
  const std::unique_ptr<TKZCustomINIFile> FStore;
};

class HistoryStoreTest : public testing::Test {
 protected:
  HistoryStoreTest() { Settings().LogDirectory.Set(FFolder.Path()); }

  // A history as a Guardian has it that begins now.
  std::shared_ptr<THistory> Begin(const std::string& text) {
    auto history = std::make_shared<THistory>(FClock);
    history->AddEvent(TEventKind::Info, text);
    return history;
  }
  std::unique_ptr<THistoryStore> Keep(const std::shared_ptr<THistory>& history) {
    return std::make_unique<THistoryStore>(
        history,
        [this](TStoreUse use) {
          while (StandsStill) SystemClock().Sleep(std::chrono::milliseconds(1));
          auto store = OpenGuardianStore(use);
          if (IsLocked) store = std::make_unique<TLockedStore>(std::move(store));
          ++FOpened;
          return store;
        },
        FClock);
  }
  // The texts of the stored events.
  static std::string Stored() {
    const auto store = OpenGuardianStore(TStoreUse::Look);
    const auto record = RecordOf(store ? store->ReadString("History", "Record", "") : "");
    return record ? Texts(*record) : "";
  }
  static std::string Texts(const THistoryRecord& record) {
    std::string texts;
    for (std::uint32_t i = 0; i < record.EventCount; ++i) {
      texts.append(record.Events.at(i).Shown()).append(" ");
    }
    return texts;
  }

  const TSettingsBackup FSettings;
  const TTempFolder FFolder;
  TFakeClock FClock;
  std::atomic<bool> StandsStill = false, IsLocked = false;
  std::atomic<int> FOpened = 0;
};

TEST_F(HistoryStoreTest, WritesEveryTenMinutesAndAtTheEndAndTakesOverWhatWasThere) {
  const auto history = Begin("first");
  auto store = Keep(history);
  EXPECT_TRUE(Eventually([this] { return FClock.Waits() == 1; }));
  EXPECT_FALSE(FFolder.Has("VellumarkGuardian.cfg")) << "not made to look into";
  FClock.Advance(minutes(9));
  history->AddEvent(TEventKind::Info, "second");
  FClock.Advance(minutes(1));
  EXPECT_TRUE(Eventually([] { return Stored() == "first second "; })) << "as after kill -9";
  history->AddEvent(TEventKind::Info, "third");
  store.reset();
  EXPECT_EQ(Stored(), "first second third ");
  const auto next = Begin("next");
  store = Keep(next);
  EXPECT_TRUE(Eventually([&] { return Texts(*next->Get()) == "first second third next "; }));
  store.reset();
  EXPECT_EQ(Stored(), "first second third next ");
}

TEST_F(HistoryStoreTest, SaysOnceThatItCannotWriteAndOnceThatItCannotReadAndGoesOn) {
  const TErrorLogInFolder log;
  const auto timesSaid = [&log](const char* line) { return CountOf(log.Text(), line); };
  auto store = Keep(Begin("kept"));
  for (const bool isLocked : {true, false, true}) {
    IsLocked = isLocked;
    EXPECT_TRUE(Eventually([this, most = FOpened + 2] {
      FClock.Advance(minutes(1));
      return FOpened >= most;
    }));
  }
  store.reset();
  EXPECT_EQ(timesSaid("History store Exception: It was not written"), 1);
  EXPECT_EQ(timesSaid("History store Exception: "), 2) << "as often as it began";
  IsLocked = false;
  EXPECT_EQ(Stored(), "kept ");
  OpenGuardianStore(TStoreUse::Keep)->WriteString("History", "Record", "of another layout");
  Keep(Begin("anew")).reset();
  EXPECT_EQ(timesSaid("The stored history is of another layout; it begins anew."), 1);
  EXPECT_EQ(Stored(), "anew ");
  IsLocked = true;
  Keep(Begin("late")).reset();
  EXPECT_EQ(Stored(), "anew ") << "nothing is written over what cannot be read";
}

TEST_F(HistoryStoreTest, EndsBesideAStoreThatStandsStill) {
  StandsStill = true;
  Keep(Begin("late")).reset();
  EXPECT_EQ(FOpened, 0);
  EXPECT_EQ(CountThreads("HistoryStore"), 1) << "it is left behind";
  StandsStill = false;
  EXPECT_TRUE(Eventually([] { return CountThreads("HistoryStore") == 0; }));
  EXPECT_EQ(Stored(), "late ");
}

}  // namespace
}  // namespace guardian
