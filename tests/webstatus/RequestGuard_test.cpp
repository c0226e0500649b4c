#include "webstatus/RequestGuard.h"

#include <gmock/gmock.h>

namespace guardian {
namespace {

using THeaders = std::vector<std::pair<std::string, std::string>>;

constexpr const char* kBrowser = "Mozilla/5.0 (X11; Linux x86_64)";

const TRequestGuard& Guard() {
  static const TRequestGuard guard({"nas", "nas.example.com"}, {"guardian.example.org"}, "secret");
  return guard;
}

int StatusOf(const std::optional<THttpResponse>& refusal) {
  return refusal ? refusal->Status : 200;
}

TEST(RequestGuardTest, AnswersToTheNamesOfThisMachineAlone) {
  const struct {
    const char* Host;
    int Status;
  } cases[] = {
      {"192.0.2.7", 200},
      {"192.0.2.7:8900", 200},
      {"[2001:db8::7]:8900", 200},
      {"[::1]", 200},
      {"localhost:8900", 200},
      {"LocalHost.", 200},
      {"nas", 200},
      {"another-box", 200},
      {"NAS.example.com.:8900", 200},
      {"guardian.example.org", 200},
      {"box.local", 200},
      {"box.lan", 200},
      {"box.home.arpa", 200},
      {"box.internal", 200},
      {"rebind.attacker.example:8900", 421},
      {"nas.example.com.attacker.example", 421},
      {"xguardian.example.org", 421},
      {"192.0.2.7.attacker.example", 421},
      {"local.attacker", 421},
      {"[::1", 200},
      {"[]", 421},
      {"", 421},
      {"user@nas", 421},
      {"<b>", 421},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.Host);
    THttpRequest request;
    request.Headers = {{"hOST", item.Host}};
    EXPECT_EQ(StatusOf(Guard().RefuseHost(request)), item.Status);
  }
  EXPECT_EQ(StatusOf(Guard().RefuseHost({})), 200) << "a bare client";

  THttpRequest request;
  request.Headers = {{"Host", "Box.Attacker.example:8900"}};
  EXPECT_EQ(
      Guard().RefuseHost(request)->Body,
      "The Guardian does not answer to the name \"box.attacker.example\". To allow it, add it "
      "to VELLUMARK_GUARDIAN_HOSTS.");
}

TEST(RequestGuardTest, ActsForItsOwnPagesTypedAddressesAndProgramsAlone) {
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
      {"foreign Referer", {{"Referer", "http://attacker.example/http://nas:8900/"}}, 403},
      {"foreign Referer with a cookie",
       {{"Referer", "http://attacker.example/"}, {"Cookie", cookie}},
       403},
      {"typed after a visit", {{"User-Agent", kBrowser}, {"Cookie", "a=b;  " + cookie}}, 200},
      {"somebody's cookie", {{"User-Agent", kBrowser}, {"Cookie", cookie + "x; a=" + cookie}}, 403},
      {"prefetch", {{"Sec-Fetch-Site", "same-origin"}, {"Sec-Purpose", "prefetch;prerender"}}, 403},
      {"old prefetch", {{"Purpose", "Prefetch"}}, 403},
      {"web socket", {{"Upgrade", "websocket"}}, 403},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.Name);
    THttpRequest request;
    request.Headers = item.Headers;
    request.Headers.emplace_back("Host", "nas:8900");
    EXPECT_EQ(StatusOf(Guard().RefuseAction(request)), item.Status);
  }
}

TEST(RequestGuardTest, TellsABrowserWithoutMarksWhereToClick) {
  THttpRequest request;
  request.Headers = {{"User-Agent", kBrowser}};
  EXPECT_THAT(Guard().RefuseAction(request)->Body, testing::HasSubstr("<a HREF=\"/\">"));
}

TEST(RequestGuardTest, KnowsASecretOfItsOwnInEachProcess) {
  const std::string header = MakeRequestGuard().CookieHeader();
  EXPECT_THAT(header, testing::MatchesRegex("Set-Cookie: vellumark_guardian=[0-9a-f]{32}; "
                                            "SameSite=Strict; HttpOnly; Path=/\r\n"));
  EXPECT_NE(header, MakeRequestGuard().CookieHeader());
}

}  // namespace
}  // namespace guardian
