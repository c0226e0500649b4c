#include "ipc/KZCustomApplication.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>

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

TEST(TKZCustomApplicationTest, IsTheOneApplicationWhileItExists) {
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(CurrentApplication(), nullptr);
    EXPECT_EQ(ApplicationState(), TApplicationState::Absent);
    TKZCustomApplication application;
    EXPECT_THROW(TKZCustomApplication(), KZException);
    EXPECT_EQ(CurrentApplication(), &application);
    EXPECT_EQ(ApplicationState(), TApplicationState::Running);
  }
  EXPECT_EQ(CurrentApplication(), nullptr);
  EXPECT_EQ(ApplicationState(), TApplicationState::Absent);
}

TEST(TKZCustomApplicationTest, RunsRequestsUntilTerminatedByAnyThread) {
  TKZCustomApplication application;
  pollfd stopping{.fd = application.Stopping().Descriptor(), .events = POLLIN, .revents = 0};
  EXPECT_EQ(::poll(&stopping, 1, 0), 0);
  bool ran = false;
  const TCrew crew(1, [&](int) {
    Synchronize([&] { ran = true; });
    application.Terminate();
  });
  application.Run();
  EXPECT_TRUE(ran);
  EXPECT_TRUE(application.Terminated());
  EXPECT_EQ(ApplicationState(), TApplicationState::Terminating);
  EXPECT_EQ(::poll(&stopping, 1, 0), 1);
  application.Run();  // Returns at once: there is no way back.
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
    application.Initialize();
    application.Initialize();
    EXPECT_EQ(ActionOf(SIGHUP).sa_handler, SIG_DFL);
    EXPECT_EQ(ActionOf(SIGCHLD).sa_handler, SIG_DFL) << "children are reaped";
    const struct sigaction action = ActionOf(ending);
    EXPECT_NE(action.sa_flags & SA_RESTART, 0);
    EXPECT_EQ(sigismember(&action.sa_mask, SIGUSR1), 1);
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
