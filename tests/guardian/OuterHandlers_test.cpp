#include "guardian/FakeSurroundings.h"
#include "guardian/Units.h"
#include "ipc/MessageUnit.h"

namespace guardian {
namespace {

void FailOnPurpose() { throw std::runtime_error("on purpose"); }

// What is thrown in a thread of the Guardian's leaves a report, and the thread goes on.
class OuterHandlersTest : public testing::Test {
 protected:
  void ExpectReport(const std::string& where) const {
    const auto log = [this] { return FFolder.Read("_Exceptions.log"); };
    const std::string item = "\nWhere: " + where + ", CP: ";
    EXPECT_TRUE(Eventually([&] { return log().find(item) != std::string::npos; }));
    EXPECT_THAT(log(), HasSubstr("Vellumark Guardian 1.50"));
    EXPECT_THAT(log(), HasSubstr("Exception std::runtime_error: on purpose\n"));
    EXPECT_TRUE(Eventually([&] { return FFolder.Has("VellumarkGuardian.cfg"); }))
        << "the store of the reports' throttle";
  }

  const TSettingsBackup FSettings{};
  const TTempFolder FFolder;
  const bool FSet = (Settings().LogDirectory.Set(FFolder.Path()), true);
  TKZCustomApplication FApplication;
  TUnits FUnits;
  std::atomic<int> FCalls = 0;
};

TEST_F(OuterHandlersTest, ReportTheDeliveryOfMessages) {
  TRecorder receiver;
  receiver.OnMessage = [](auto&) { FailOnPurpose(); };
  for (const int number : {1, 2}) receiver.Post(number);
  EXPECT_TRUE(receiver.Receives(2));
  ExpectReport("Processing KZMsg");
}

// A step that throws does not take the later ones with it.
TEST_F(OuterHandlersTest, ReportTheWatchdogTick) {
  TFakeSurroundings fakes;
  TGuardianService service(fakes.Make([&](const std::string&, int) -> TShellOutcome {
    if (++FCalls > 1) FailOnPurpose();
    return {};
  }));
  service.Start();
  service.RequestStart();
  for (const int calls : {3, 4}) {  // The request and the look, then the look.
    fakes.Clock.Advance(std::chrono::seconds(10));
    EXPECT_TRUE(Eventually([&] { return FCalls >= calls; })) << calls;
  }
  ExpectReport("Watchdog tick");
  service.Stop();
  EXPECT_THAT(Joined(service.Status().DetailedLog),
              HasSubstr("Exception in watchdog tick: on purpose"));
}

}  // namespace
}  // namespace guardian
