#include "webstatus/WebStatusServer.h"

#include <gmock/gmock.h>

#include "webstatus/RawClient.h"

namespace guardian {
namespace {

using testing::HasSubstr;

TEST(WebStatusServerTest, TakesTheFirstFreePortFrom8900To8000) {
  using TPorts = std::pair<std::uint16_t, std::uint16_t>;
  for (const auto& [lastTaken, port] :
       {TPorts(8901, 8900), TPorts(8899, 8898), TPorts(8001, 8000), TPorts(8000, 0)}) {
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
  }
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
