#include "webstatus/RequestGuard.h"

#include <sys/mount.h>

#include "common/Environment.h"
#include "support/TestSupport.h"

namespace guardian {
namespace {

using THeaders = std::vector<std::pair<std::string, std::string>>;

const TRequestGuard& Guard() {
  static const TRequestGuard guard({"nas", "nas.example.com"}, {"guardian.example.org"}, "secret");
  return guard;
}

TEST(RequestGuardTest, AnswersToTheNamesOfThisMachineAlone) {
  const auto refusal = [](const std::string& host) {
    return Guard().RefuseHost({"GET", "/", "", {{"hOST", host}}});
  };
  for (const char* const own :
       {"192.0.2.7", "192.0.2.7:8900", "[2001:db8::7]:8900", "[::1]", "[fe80::1%eth0]:8900",
        "localhost:8900", "LocalHost.", "nas:", "another-box", "NAS.example.com.:8900",
        "guardian.example.org", "box.local", "box.lan", "box.home.arpa", "box.internal"}) {
    EXPECT_FALSE(refusal(own)) << own;
  }
  EXPECT_FALSE(Guard().RefuseHost({})) << "a bare client";
  for (const char* const foreign :
       {"rebind.attacker.example:8900", "nas.example.com.attacker.example", "xguardian.example.org",
        "192.0.2.7.attacker.example", "local.attacker", "[]", "", "user@nas", "<b>", "nas:x",
        "192.0.2.7:80:90", "[::1", "[::1]x", "[::1]rebind.attacker.example:8900"}) {
    EXPECT_EQ(refusal(foreign).value_or(THttpResponse()).Status, 421) << foreign;
  }
  EXPECT_EQ(
      refusal("Box.Attacker.example:8900")->Body,
      "The Guardian does not answer to the name \"box.attacker.example\". To allow it, add it "
      "to VELLUMARK_GUARDIAN_HOSTS.");
  THttpRequest whole = RequestOf("GET", "http://rebind.attacker.example/killdaemon.php");
  whole.Headers.emplace_back("Host", "nas");
  EXPECT_TRUE(Guard().RefuseHost(whole));
}

TEST(RequestGuardTest, ActsForItsOwnPagesTypedAddressesAndProgramsAlone) {
  const auto refusal = [](THeaders headers) {
    headers.emplace_back("Host", "nas:8900");
    return Guard().RefuseAction({"GET", "/", "", headers});
  };
  const std::pair<std::string, std::string> browser = {"User-Agent", "Mozilla/5.0 (X11)"};
  const std::pair<std::string, std::string> cookie = {"Cookie", "a=b;  vellumark_guardian=secret"};
  const std::pair<THeaders, int> cases[] = {
      {{}, 200},
      {{browser}, 403},
      {{browser, {"Sec-Fetch-Site", "same-origin"}}, 200},
      {{browser, {"sec-fetch-site", "none"}}, 200},
      {{{"Sec-Fetch-Site", "same-site"}}, 403},
      {{{"Sec-Fetch-Site", "cross-site"}, {"Referer", "http://nas:8900/"}, cookie}, 403},
      {{browser, {"Origin", "http://NAS:8900"}}, 200},
      {{{"Origin", "http://attacker.example"}}, 403},
      {{{"Origin", "null"}, {"Referer", "http://nas:8900/"}}, 403},
      {{browser, {"Referer", "http://nas:8900/x?y"}}, 200},
      {{{"Referer", "http://nas:8080/"}}, 403},
      {{{"Referer", "http://attacker.example/http://nas:8900/"}, cookie}, 403},
      {{browser, cookie}, 200},
      {{browser, {"Cookie", cookie.second + "x; a=vellumark_guardian=secret;vellumark_"}}, 403},
      {{{"Sec-Fetch-Site", "same-origin"}, {"Sec-Purpose", "prerender"}}, 403},
      {{{"Purpose", "Prefetch"}}, 403},
      {{{"Upgrade", "websocket"}}, 403},
  };
  for (const auto& [headers, status] : cases) {
    EXPECT_EQ(refusal(headers).value_or(THttpResponse()).Status, status)
        << testing::PrintToString(headers);
  }
  EXPECT_TRUE(Guard().RefuseAction({"GET", "/", "", {{"Origin", "null"}}}));
  EXPECT_THAT(refusal({browser})->Body, HasSubstr("<a HREF=\"/\">"));
}

TEST(RequestGuardTest, KnowsTheNamesOfTheMachineAndThoseThatItWasTold) {
  const TTempFolder folder;
  folder.Write("resolv.conf",
               "nameserver x\nsearch One.example two.example.\ndomain three.example");
  ::setenv("VELLUMARK_GUARDIAN_HOSTS", "https://a.example, B.Example.:80,*.example,c.example:x", 1);
  const bool hasResolver =
      HasOwnMounts() && ::mount(folder.Path("resolv.conf").c_str(), "/etc/resolv.conf", nullptr,
                                MS_BIND, nullptr) == 0;
  testing::internal::CaptureStdout();
  const TRequestGuard guard = MakeRequestGuard();
  ::unsetenv("VELLUMARK_GUARDIAN_HOSTS");
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              MatchesRegex("(VELLUMARK_GUARDIAN_HOSTS: \"(https:|\\*|c.example:).*\" is no "
                           "host name and is ignored\n){3}"));
  const std::string own = HostName() + ".";
  const std::map<std::string, bool> names = {{"b.example", true},
                                             {"x.b.example", false},
                                             {own + "one.example", hasResolver},
                                             {own + "two.example", hasResolver},
                                             {own + "three.example", hasResolver},
                                             {own + "x", false}};
  for (const auto& [name, isOwn] : names) {
    EXPECT_EQ(!guard.RefuseHost(RequestOf("GET", "http://" + name)), isOwn) << name;
  }
}

TEST(RequestGuardTest, KnowsASecretOfItsOwnInEachProcess) {
  const std::string header = MakeRequestGuard().CookieHeader();
  EXPECT_THAT(header, MatchesRegex("Set-Cookie: vellumark_guardian=[0-9a-f]{32}; "
                                   "SameSite=Strict; HttpOnly; Path=/\r\n"));
  EXPECT_NE(header, MakeRequestGuard().CookieHeader());
}

}  // namespace
}  // namespace guardian
