#include "webstatus/WebStatusServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "common/Event.h"
#include "common/Exceptions.h"
#include "common/FileDescriptor.h"
#include "support/Eventually.h"
#include "webstatus/HttpClient.h"

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
      FHolders.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
      const int holder = FHolders.back().Get();
      // A connection that has just ended is no reason not to get the port.
      const int yes = 1;
      ASSERT_EQ(::setsockopt(holder, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes)), 0);
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_port = htons(port);
      const auto* generic = reinterpret_cast<const sockaddr*>(&address);
      if (::bind(holder, generic, sizeof(address)) != 0) continue;
      ASSERT_EQ(::listen(holder, 1), 0) << port;
    }
  }

  std::vector<TFileDescriptor> FHolders;
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

TEST_F(WebStatusServerTest, TakesTheProcessListOnceForEachRequest) {
  TKZEvent listed("listed");
  int commands = 0;
  TWebStatusServer server({.Guardian = nullptr,
                           .TerminateGuardian = {},
                           .Shell = [&](const std::string& line, int timeoutSec) -> std::string {
                             ++commands;
                             EXPECT_EQ(timeoutSec, 10);
                             if (line.find("--columns") != std::string::npos) return "0";
                             listed.Signal();
                             return "7 VellumarkCL";
                           }});
  EXPECT_EQ(server.ProcessListTime(), 0);
  server.RequestProcessList();
  ASSERT_TRUE(listed.WaitFor(std::chrono::seconds(20)));
  EXPECT_TRUE(Eventually([&] { return server.ProcessListTime() > 0; }));
  EXPECT_EQ(*server.ProcessList(), "7 VellumarkCL");
  EXPECT_FALSE(listed.WaitFor(std::chrono::milliseconds(500)));
  EXPECT_EQ(commands, 2);
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
    EXPECT_THROW((void)Get(8900, "status.php"), SoftException);
  }
}

}  // namespace
}  // namespace guardian
