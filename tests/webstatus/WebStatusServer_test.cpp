#include "webstatus/WebStatusServer.h"

#include <gmock/gmock.h>

#include "support/Eventually.h"
#include "webstatus/RawClient.h"

namespace guardian {
namespace {

using testing::HasSubstr;

TEST(WebStatusServerTest, TakesTheFirstFreePortFrom8900To8000) {
  const struct {
    std::uint16_t LastTaken, Port;
  } cases[] = {{8901, 8900}, {8899, 8898}, {8001, 8000}, {8000, 0}};
  for (const auto& [lastTaken, port] : cases) {
    SCOPED_TRACE(lastTaken);
    std::vector<TFileDescriptor> holders;
    for (std::uint16_t taken = 8900; taken >= lastTaken; --taken) {
      holders.push_back(ListenOnLoopback(taken));
    }
    testing::internal::CaptureStdout();
    TWebStatusServer server({});
    server.StartServer();
    const std::string output = testing::internal::GetCapturedStdout();
    const std::string active = "Web Status Server Active on Port " + std::to_string(port) + "\n";
    EXPECT_THAT(output, testing::StartsWith(port ? active : "Web Status Server Cannot Start: "));
    EXPECT_EQ(output.find("in use") != std::string::npos, port == 0);
    EXPECT_EQ(server.Port(), port);
    if (port == 0) continue;
    EXPECT_EQ(TRawClient(port).Get("/status.php").Body,
              "Guardian running and accessible via port " + std::to_string(port) + ". ");
    server.StopServer();
    server.StartServer();
    EXPECT_EQ(server.Port(), port);
  }
}

TEST(WebStatusServerTest, TakesTheProcessListOnceForEachRequest) {
  std::atomic<int> commands = 0;
  TWebStatusServer server({.Guardian = nullptr,
                           .TerminateGuardian = {},
                           .Shell = [&](const std::string& line, int timeoutSec) -> std::string {
                             ++commands;
                             EXPECT_EQ(timeoutSec, 10);
                             const bool isProbe = line.find("--columns") != std::string::npos;
                             return isProbe ? "0" : "7 VellumarkCL";
                           }});
  for (int request = 1; request <= 2; ++request) {
    const TDateTime before = server.ProcessListTime();
    EXPECT_EQ(before == 0, request == 1);
    server.RequestProcessList();
    EXPECT_TRUE(Eventually([&] { return server.ProcessListTime() > before; }));
    EXPECT_EQ(*server.ProcessList(), "7 VellumarkCL");
    EXPECT_EQ(commands, 2 * request);
  }
  EXPECT_FALSE(Eventually([&] { return commands > 4; }, std::chrono::seconds(1)));
}

TEST(WebStatusServerTest, OneInstanceStartsAndIsFreedAgainAndAgain) {
  for (int round = 0; round < 2; ++round) {
    testing::internal::CaptureStdout();
    StartWebStatusServer({});
    StartWebStatusServer({});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Web Status Server Active on Port 8900\n");
    EXPECT_TRUE(WebStatusServerWanted());
    EXPECT_THAT(TRawClient(8900).Get("/").Body, HasSubstr("Vellumark Guardian 1.50, Build 10"));
    FreeWebStatusServer();
    FreeWebStatusServer();
    EXPECT_FALSE(WebStatusServerWanted());
    EXPECT_THROW(TRawClient(8900), std::runtime_error);
  }
}

}  // namespace
}  // namespace guardian
