#include "ipc/KZCustomApplication.h"

#include <gtest/gtest.h>

#include "common/Exceptions.h"
#include "common/MainThread.h"
#include "support/Crew.h"
#include "support/Eventually.h"

namespace guardian {
namespace {

struct sigaction ActionOf(int signalNumber) {
  struct sigaction action {};
  ::sigaction(signalNumber, nullptr, &action);
  return action;
}

TEST(TKZCustomApplicationTest, RunsRequestsUntilAnyThreadTerminatesIt) {
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(CurrentApplication(), nullptr);
    EXPECT_EQ(ApplicationState(), TApplicationState::Absent);
    TKZCustomApplication application;
    EXPECT_THROW(TKZCustomApplication(), KZException) << "the only one";
    EXPECT_EQ(CurrentApplication(), &application);
    EXPECT_EQ(ApplicationState(), TApplicationState::Running);
    bool ran = false;
    const TCrew crew(1, [&](int) {
      Synchronize([&] { ran = !application.Terminated(); });
      application.Terminate();
    });
    application.Run();
    EXPECT_TRUE(ran);
    EXPECT_TRUE(application.Stopping().IsCancelled());
    EXPECT_EQ(ApplicationState(), TApplicationState::Terminating);
  }
}

// Without the wake-up each round would take ten seconds.
TEST(TKZCustomApplicationTest, WakesTheMainThreadWhenItTerminates) {
  int rounds = 0;
  EXPECT_TRUE(Eventually([&] {
    TKZCustomApplication application;
    application.Terminate();
    CheckSynchronize(std::chrono::seconds(10));
    return ++rounds == 10;
  }));
}

TEST(TKZCustomApplicationTest, EndsOnSignalsAndGivesThemBack) {
  ::signal(SIGCHLD, SIG_IGN);
  for (const int ending : {SIGINT, SIGTERM}) {
    TKZCustomApplication application;
    for (int i = 0; i < 2; ++i) application.Initialize();
    EXPECT_EQ(ActionOf(SIGHUP).sa_handler, SIG_DFL);
    EXPECT_EQ(ActionOf(SIGCHLD).sa_handler, SIG_DFL) << "children are reaped";
    EXPECT_NE(ActionOf(ending).sa_flags & SA_RESTART, 0);
    ::raise(SIGPIPE);
    EXPECT_FALSE(application.Terminated());
    ::raise(ending);
    EXPECT_TRUE(application.Terminated());
  }
  for (const int each : {SIGINT, SIGTERM, SIGPIPE}) EXPECT_EQ(ActionOf(each).sa_handler, SIG_DFL);
  EXPECT_EQ(::signal(SIGCHLD, SIG_DFL), SIG_IGN);
}

}  // namespace
}  // namespace guardian
