#include "ipc/KZCustomApplication.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include "common/Exceptions.h"
#include "ipc/MessageUnit.h"
#include "support/ChildProcess.h"
#include "support/Program.h"

namespace guardian {
namespace {

bool IsReadable(int descriptor) {
  pollfd state{.fd = descriptor, .events = POLLIN, .revents = 0};
  return ::poll(&state, 1, 0) == 1;
}

void (*HandlerOf(int signalNumber))(int) {
  struct sigaction action {};
  ::sigaction(signalNumber, nullptr, &action);
  return action.sa_handler;
}

TEST(TKZCustomApplicationTest, IsTheOneApplicationWhileItExists) {
  EXPECT_EQ(CurrentApplication(), nullptr);
  EXPECT_EQ(ApplicationState(), TApplicationState::Absent);
  {
    TKZCustomApplication application;
    EXPECT_EQ(CurrentApplication(), &application);
    EXPECT_EQ(ApplicationState(), TApplicationState::Running);
    EXPECT_THROW(TKZCustomApplication(), KZException);
    EXPECT_EQ(CurrentApplication(), &application);
    EXPECT_EQ(ApplicationState(), TApplicationState::Running);
  }
  EXPECT_EQ(CurrentApplication(), nullptr);
  EXPECT_EQ(ApplicationState(), TApplicationState::Absent);
}

TEST(TKZCustomApplicationTest, RunsRequestsUntilTerminatedByAnyThread) {
  TKZCustomApplication application;
  EXPECT_FALSE(IsReadable(application.Stopping().Descriptor()));
  bool ran = false;
  const TCrew crew(1, [&](int) {
    Synchronize([&] { ran = true; });
    application.Terminate();
  });
  application.Run();
  EXPECT_TRUE(ran);
  EXPECT_TRUE(application.Terminated());
  EXPECT_EQ(ApplicationState(), TApplicationState::Terminating);
  EXPECT_TRUE(application.Stopping().IsCancelled());
  EXPECT_TRUE(IsReadable(application.Stopping().Descriptor()));
  application.Run();  // Returns at once: there is no way back.
}

// Without the wake-up the wait would take an hour, and the test's time limit would end it.
TEST(TKZCustomApplicationTest, WakesTheMainThreadWhenItTerminates) {
  TKZCustomApplication application;
  while (CheckSynchronize(std::chrono::milliseconds(0))) continue;
  application.Terminate();
  EXPECT_FALSE(CheckSynchronize(std::chrono::hours(1)));
}

TEST(TKZCustomApplicationTest, GivesTheSignalsBack) {
  const auto hangup = HandlerOf(SIGHUP);
  const auto interrupt = HandlerOf(SIGINT);
  const auto terminate = HandlerOf(SIGTERM);
  const auto pipe = HandlerOf(SIGPIPE);
  {
    TKZCustomApplication application;
    application.Initialize();
    application.Initialize();
    EXPECT_EQ(HandlerOf(SIGHUP), hangup);
    EXPECT_NE(HandlerOf(SIGINT), interrupt);
    EXPECT_NE(HandlerOf(SIGTERM), terminate);
    EXPECT_EQ(HandlerOf(SIGPIPE), SIG_IGN);
  }
  EXPECT_EQ(HandlerOf(SIGINT), interrupt);
  EXPECT_EQ(HandlerOf(SIGTERM), terminate);
  EXPECT_EQ(HandlerOf(SIGPIPE), pipe);
}

// Runs an application and sends its own process the signal from another thread, once the loop runs.
// Exit code 0 when the loop ended by it, 1 when it was ended otherwise.
int RunApplicationAndSignal(const std::vector<std::string>& arguments) {
  const int signalNumber = std::stoi(arguments.at(0));
  BindMainThread();
  TKZCustomApplication application;
  application.Initialize();
  bool endedBySignal = true;
  TFunctionThread sender("Sender", [&] {
    Synchronize([] {});
    ::kill(::getpid(), signalNumber);
    if (signalNumber != SIGPIPE) return;
    Synchronize([&] { endedBySignal = application.Terminated(); });
    application.Terminate();
  });
  sender.Start();
  application.Run();
  sender.Join();
  return endedBySignal ? 0 : 1;
}

const TRegisterChild kSignalChild("application-signal", &RunApplicationAndSignal);

TEST(TKZCustomApplicationTest, EndsItsLoopOnInterruptAndTerminateAndIgnoresABrokenPipe) {
  const auto exitCodeAfter = [](int signalNumber) {
    TProgram program(
        {"/proc/self/exe", "--child", "application-signal", std::to_string(signalNumber)});
    return program.Wait();
  };
  EXPECT_EQ(exitCodeAfter(SIGINT), 0);
  EXPECT_EQ(exitCodeAfter(SIGTERM), 0);
  EXPECT_EQ(exitCodeAfter(SIGPIPE), 1);
  EXPECT_EQ(exitCodeAfter(SIGHUP), -SIGHUP);
}

}  // namespace
}  // namespace guardian
