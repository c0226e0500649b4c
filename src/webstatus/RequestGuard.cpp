#include "webstatus/RequestGuard.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>

#include "common/Console.h"
#include "common/Environment.h"
#include "common/Exceptions.h"
#include "common/FileDescriptor.h"

namespace guardian {
namespace {

constexpr std::string_view kCookieName = "vellumark_guardian";
constexpr const char* kHostsVariable = "VELLUMARK_GUARDIAN_HOSTS";

// "NAS.Example.:8900" to "nas.example", "[::1]:8900" to "::1". What is malformed is then neither a
// name nor an address.
std::string HostWithoutPort(std::string_view host) {
  const std::size_t colon = host.find_last_not_of("0123456789");
  if (colon != std::string_view::npos && host[colon] == ':') host = host.substr(0, colon);
  if (host.starts_with('[') && host.ends_with(']'))
    return LowerCase(host.substr(1, host.size() - 2));
  if (host.ends_with('.')) host.remove_suffix(1);
  return LowerCase(host);
}

bool IsName(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_';
  });
}

// "http://host:port/path" to "host:port"; empty for anything else, such as "null".
std::string_view AuthorityOf(std::string_view url) {
  const std::size_t scheme = url.find("://");
  if (scheme == std::string_view::npos) return {};
  url.remove_prefix(scheme + 3);
  return url.substr(0, url.find_first_of("/?#"));
}

bool SameAuthority(std::string_view a, std::string_view b) {
  return !a.empty() && EqualNames(a, b);
}

THttpResponse Refusal(int status, std::string text) {
  THttpResponse response = PlainResponse(status);
  response.Body = std::move(text);
  return response;
}

bool IsPrefetch(const THttpRequest& request) {
  const std::string purpose = LowerCase(request.Header("Sec-Purpose").value_or("")) +
                              LowerCase(request.Header("Purpose").value_or(""));
  return purpose.find("prefetch") != std::string::npos ||
         purpose.find("prerender") != std::string::npos;
}

// The domains that the resolver appends to short names.
std::vector<std::string> ResolverDomains() {
  std::vector<std::string> domains;
  std::ifstream file("/etc/resolv.conf");
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::string word;
    words >> word;
    if (word != "search" && word != "domain") continue;
    while (words >> word) domains.push_back(HostWithoutPort(word));
  }
  return domains;
}

std::string RandomText() {
  std::array<unsigned char, 16> bytes{};
  // Linux before 3.17 has the device alone, which never makes a reader wait.
  if (::getrandom(bytes.data(), bytes.size(), 0) != std::ssize(bytes)) {
    const TFileDescriptor device(::open("/dev/urandom", O_RDONLY | O_CLOEXEC));
    if (::read(device.Get(), bytes.data(), bytes.size()) != std::ssize(bytes)) {
      throw ESystemError("read", "/dev/urandom", errno);
    }
  }
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : bytes) {
    text.push_back(kDigits[byte >> 4U]);
    text.push_back(kDigits[byte & 15U]);
  }
  return text;
}

}  // namespace

TRequestGuard::TRequestGuard(std::vector<std::string> ownNames,
                             const std::vector<std::string>& allowedNames, std::string cookieValue)
    : FNames(std::move(ownNames)),
      FCookie(std::string(kCookieName) + "=" + std::move(cookieValue)) {
  FNames.insert(FNames.end(), allowedNames.begin(), allowedNames.end());
}

bool TRequestGuard::IsOwnName(std::string_view host) const {
  constexpr std::array<std::string_view, 4> kPrivateEndings = {".local", ".lan", ".home.arpa",
                                                               ".internal"};
  return std::any_of(kPrivateEndings.begin(), kPrivateEndings.end(),
                     [host](std::string_view ending) { return host.ends_with(ending); }) ||
         std::find(FNames.begin(), FNames.end(), host) != FNames.end();
}

// A name without a dot is looked up in the local network alone.
std::optional<THttpResponse> TRequestGuard::RefuseHost(const THttpRequest& request) const {
  const auto authority = request.Header("Host");
  if (!authority) return std::nullopt;
  const std::string host = HostWithoutPort(*authority);
  const bool hasDot = host.find('.') != std::string::npos;
  if (IsAddress(host) || (IsName(host) && (!hasDot || IsOwnName(host)))) return std::nullopt;
  return Refusal(421, "The Guardian does not answer to the name \"" +
                          (IsName(host) ? host : std::string("?")) + "\". To allow it, add it to " +
                          kHostsVariable + ".");
}

std::optional<THttpResponse> TRequestGuard::RefuseAction(const THttpRequest& request) const {
  const auto another = [] { return Refusal(403, "Refused: the request comes from another site."); };
  if (IsPrefetch(request) || request.Header("Upgrade")) {
    return Refusal(403, "Refused: nobody has asked for this page yet.");
  }
  if (const auto site = request.Header("Sec-Fetch-Site")) {
    if (*site == "same-origin" || *site == "none") return std::nullopt;
    return another();
  }
  const std::string_view host = request.Header("Host").value_or("");
  for (const char* const name : {"Origin", "Referer"}) {
    const auto url = request.Header(name);
    if (!url) continue;
    if (SameAuthority(AuthorityOf(*url), host)) return std::nullopt;
    return another();
  }
  if (HasCookie(request)) return std::nullopt;
  // A page can keep its browser from saying where a request comes from, but not from saying that it
  // is a browser.
  if (!request.Header("User-Agent").value_or("").starts_with("Mozilla/")) return std::nullopt;
  THttpResponse response;
  response.Status = 403;
  response.Body =
      "Refused: the browser does not say which page the request comes from. Use the link on the "
      "<a HREF=\"/\">main page</a>.";
  return response;
}

bool TRequestGuard::HasCookie(const THttpRequest& request) const {
  std::string_view cookies = request.Header("Cookie").value_or("");
  while (!cookies.empty()) {
    const std::size_t end = std::min(cookies.find(';'), cookies.size());
    std::string_view cookie = cookies.substr(0, end);
    cookie.remove_prefix(std::min(cookie.find_first_not_of(' '), cookie.size()));
    if (cookie == FCookie) return true;
    cookies.remove_prefix(std::min(end + 1, cookies.size()));
  }
  return false;
}

std::string TRequestGuard::CookieHeader() const {
  return "Set-Cookie: " + FCookie + "; SameSite=Strict; HttpOnly; Path=/\r\n";
}

TRequestGuard MakeRequestGuard() {
  std::vector<std::string> names;
  if (const std::string host = LowerCase(HostName()); IsName(host)) {
    names.push_back(host);
    for (const std::string& domain : ResolverDomains()) {
      names.push_back(std::string(host).append(".").append(domain));
    }
  }
  std::vector<std::string> allowed;
  for (const std::string& entry : EnvironmentList(kHostsVariable)) {
    const std::string name = HostWithoutPort(entry);
    if (IsName(name)) {
      allowed.push_back(name);
    } else {
      PrintLine(std::string(kHostsVariable) + ": \"" + entry + "\" is no host name and is ignored");
    }
  }
  return {std::move(names), allowed, RandomText()};
}

}  // namespace guardian
