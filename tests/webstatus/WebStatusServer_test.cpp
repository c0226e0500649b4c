#include "webstatus/WebStatusServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "webstatus/http_client.h"

namespace guardian {
namespace {

using testing::HasSubstr;

class WebStatusServerTest : public testing::Test {
 protected:
  static std::string Get(std::uint16_t port, const std::string& page) {
    return HttpGet("localhost:" + std::to_string(port) + "/" + page, std::chrono::seconds(20)).Body;
  }

  // Holds the ports from 8900 down to the given one, those that are free.
  void Occupy(std::uint16_t last) {
    for (std::uint16_t port = 8900; port >= last; --port) {
      FHolders.push_back(
          std::make_unique<THttpServer>([](const THttpRequest&) { return THttpResponse(); }));
      try {
        FHolders.back()->Activate(port);
      } catch (const std::exception& error) {
        ASSERT_THAT(error.what(), HasSubstr("in use"));
      }
    }
  }

  std::vector<std::unique_ptr<THttpServer>> FHolders;
};

TEST_F(WebStatusServerTest, TakesTheNextLowerFreePort) {
  Occupy(8899);
  testing::internal::CaptureStdout();
  TWebStatusServer server({});
  server.StartServer();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Web Status Server Active on Port 8898\n");
  EXPECT_EQ(Get(8898, "status.php"), "Guardian running and accessible via port 8898. ");
  server.StopServer();
  server.StartServer();
  EXPECT_EQ(server.Port(), 8898);
}

TEST_F(WebStatusServerTest, GivesUpBelowPort8000) {
  Occupy(8000);
  testing::internal::CaptureStdout();
  TWebStatusServer server({});
  server.StartServer();
  const std::string output = testing::internal::GetCapturedStdout();
  EXPECT_TRUE(output.starts_with("Web Status Server Cannot Start: ")) << output;
  EXPECT_THAT(output, HasSubstr("in use"));
  EXPECT_EQ(server.Port(), 0);
}

TEST_F(WebStatusServerTest, OneInstanceStartsAndIsFreedAgainAndAgain) {
  for (int round = 0; round < 3; ++round) {
    testing::internal::CaptureStdout();
    StartWebStatusServer({});
    StartWebStatusServer({});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Web Status Server Active on Port 8900\n");
    EXPECT_THAT(Get(8900, ""), HasSubstr("Vellumark Guardian 1.50, Build 10"));
    FreeWebStatusServer();
    FreeWebStatusServer();
    EXPECT_THROW(Get(8900, "status.php"), SoftException);
  }
}

}  // namespace
}  // namespace guardian
