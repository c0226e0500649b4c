#include "webstatus/RequestGuard.h"

#include <sys/mount.h>

#include "common/Environment.h"
#include "support/TestSupport.h"

namespace guardian {
namespace {

using THeaders = std::vector<std::pair<std::string, std::string>>;

constexpr const char* kBrowser = "Mozilla/5.0 (X11; Linux x86_64)";

const TRequestGuard& Guard() {
  static const TRequestGuard guard({"nas", "nas.example.com"}, {"guardian.example.org"}, "secret");
  return guard;
}

TEST(RequestGuardTest, AnswersToTheNamesOfThisMachineAlone) {
  const auto refusal = [](const std::string& host) {
    THttpRequest request;
    request.Headers = {{"hOST", host}};
    return Guard().RefuseHost(request);
  };
  for (const char* const own :
       {"192.0.2.7", "192.0.2.7:8900", "[2001:db8::7]:8900", "[::1]", "localhost:8900",
        "LocalHost.", "nas", "another-box", "NAS.example.com.:8900", "guardian.example.org",
        "box.local", "box.lan", "box.home.arpa", "box.internal"}) {
    EXPECT_FALSE(refusal(own)) << own;
  }
  EXPECT_FALSE(Guard().RefuseHost({})) << "a bare client";
  for (const char* const foreign :
       {"rebind.attacker.example:8900", "nas.example.com.attacker.example", "xguardian.example.org",
        "192.0.2.7.attacker.example", "local.attacker", "[]", "", "user@nas", "<b>"}) {
    EXPECT_EQ(refusal(foreign).value_or(THttpResponse()).Status, 421) << foreign;
  }
  EXPECT_EQ(
      refusal("Box.Attacker.example:8900")->Body,
      "The Guardian does not answer to the name \"box.attacker.example\". To allow it, add it "
      "to VELLUMARK_GUARDIAN_HOSTS.");
}

TEST(RequestGuardTest, ActsForItsOwnPagesTypedAddressesAndProgramsAlone) {
  const auto refusal = [](const THeaders& headers) {
    THttpRequest request;
    request.Headers = headers;
    request.Headers.emplace_back("Host", "nas:8900");
    return Guard().RefuseAction(request);
  };
  const std::string cookie = "vellumark_guardian=secret";
  const struct {
    const char* Name;
    THeaders Headers;
    int Status;
  } cases[] = {
      {"program", {}, 200},
      {"program with a name", {{"User-Agent", "curl/8"}}, 200},
      {"browser that tells nothing", {{"User-Agent", kBrowser}}, 403},
      {"its own page", {{"User-Agent", kBrowser}, {"Sec-Fetch-Site", "same-origin"}}, 200},
      {"typed", {{"User-Agent", kBrowser}, {"sec-fetch-site", "none"}}, 200},
      {"another port of this machine", {{"Sec-Fetch-Site", "same-site"}}, 403},
      {"another site", {{"Sec-Fetch-Site", "cross-site"}}, 403},
      {"mark before the rest",
       {{"Sec-Fetch-Site", "cross-site"}, {"Referer", "http://nas:8900/"}, {"Cookie", cookie}},
       403},
      {"own origin", {{"User-Agent", kBrowser}, {"Origin", "http://NAS:8900"}}, 200},
      {"foreign origin", {{"Origin", "http://attacker.example"}}, 403},
      {"no origin", {{"Origin", "null"}, {"Referer", "http://nas:8900/"}}, 403},
      {"own page by Referer", {{"User-Agent", kBrowser}, {"Referer", "http://nas:8900/x?y"}}, 200},
      {"another port by Referer", {{"Referer", "http://nas:8080/"}}, 403},
      {"foreign Referer with a cookie",
       {{"Referer", "http://attacker.example/http://nas:8900/"}, {"Cookie", cookie}},
       403},
      {"typed after a visit", {{"User-Agent", kBrowser}, {"Cookie", "a=b;  " + cookie}}, 200},
      {"somebody's cookie",
       {{"User-Agent", kBrowser}, {"Cookie", cookie + "x; a=" + cookie + ";vellumark_"}},
       403},
      {"prefetch", {{"Sec-Fetch-Site", "same-origin"}, {"Sec-Purpose", "prerender"}}, 403},
      {"old prefetch", {{"Purpose", "Prefetch"}}, 403},
      {"web socket", {{"Upgrade", "websocket"}}, 403},
  };
  for (const auto& item : cases) {
    EXPECT_EQ(refusal(item.Headers).value_or(THttpResponse()).Status, item.Status) << item.Name;
  }
  THttpRequest bare;
  bare.Headers = {{"Origin", "null"}};
  EXPECT_TRUE(Guard().RefuseAction(bare));
  EXPECT_THAT(refusal({{"User-Agent", kBrowser}})->Body, testing::HasSubstr("<a HREF=\"/\">"));
}

TEST(RequestGuardTest, KnowsTheNamesOfTheMachineAndThoseThatItWasTold) {
  const TTempFolder folder;
  folder.Write("resolv.conf",
               "nameserver x\nsearch One.example two.example.\ndomain three.example");
  ::setenv("VELLUMARK_GUARDIAN_HOSTS", "Told.Example.:8900, <b>", 1);
  const bool hasResolver =
      HasOwnMounts() && ::mount(folder.Path("resolv.conf").c_str(), "/etc/resolv.conf", nullptr,
                                MS_BIND, nullptr) == 0;
  testing::internal::CaptureStdout();
  const TRequestGuard guard = MakeRequestGuard();
  ::unsetenv("VELLUMARK_GUARDIAN_HOSTS");
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "VELLUMARK_GUARDIAN_HOSTS: \"<b>\" is no host name and is ignored\n");
  const std::string own = HostName() + ".";
  for (const auto& [name, isOwn] : std::map<std::string, bool>{{"told.example", true},
                                                               {"x.told.example", false},
                                                               {own + "one.example", hasResolver},
                                                               {own + "two.example", hasResolver},
                                                               {own + "three.example", hasResolver},
                                                               {own + "x", false}}) {
    THttpRequest request;
    request.Headers = {{"Host", name}};
    EXPECT_EQ(!guard.RefuseHost(request), isOwn) << name;
  }
}

TEST(RequestGuardTest, KnowsASecretOfItsOwnInEachProcess) {
  const std::string header = MakeRequestGuard().CookieHeader();
  EXPECT_THAT(header, testing::MatchesRegex("Set-Cookie: vellumark_guardian=[0-9a-f]{32}; "
                                            "SameSite=Strict; HttpOnly; Path=/\r\n"));
  EXPECT_NE(header, MakeRequestGuard().CookieHeader());
}

}  // namespace
}  // namespace guardian
