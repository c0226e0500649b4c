#include "webstatus/HttpMessage.h"

#include <arpa/inet.h>
#include <locale.h>

#include <algorithm>
#include <array>
#include <boost/beast/http/status.hpp>
#include <ctime>

#include "common/Texts.h"

namespace guardian {
namespace {

namespace http = boost::beast::http;

char LowerCaseOf(char c) noexcept {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string_view ReasonOf(int status) {
  const auto reason = http::obsolete_reason(static_cast<http::status>(status));
  return {reason.data(), reason.size()};
}

// "q=0.00", which refuses the media type that it stands behind.
bool IsZeroWeight(std::string_view parameter) {
  return parameter.starts_with("q=") &&
         parameter.find_first_not_of("0.", 2) == std::string_view::npos;
}

// A line end in a value would let it forge headers of its own.
void AppendHeader(std::string& head, std::string_view name, std::string_view value) {
  head.append(name).append(": ");
  const std::size_t start = head.size();
  head.append(value);
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; };
  std::replace_if(head.begin() + static_cast<std::ptrdiff_t>(start), head.end(), isControl, '_');
  head.append("\r\n");
}

// In English, whatever the locale. Written anew when the second is another.
const std::string& HttpDate(TDateTime utc) {
  constexpr double kSecondsPerDay = 86'400;
  static const locale_t english = ::newlocale(LC_ALL_MASK, "C", nullptr);
  static thread_local std::time_t writtenAt = 0;
  static thread_local std::string date;
  const auto seconds =
      static_cast<std::time_t>((utc - static_cast<double>(kUnixEpochDays)) * kSecondsPerDay);
  if (seconds == writtenAt && !date.empty()) return date;
  std::tm parts{};
  ::gmtime_r(&seconds, &parts);
  std::array<char, 64> text{};
  date.assign(text.data(),
              ::strftime_l(text.data(), text.size(), "%a, %d %b %Y %H:%M:%S GMT", &parts, english));
  writtenAt = seconds;
  return date;
}

}  // namespace

std::string LowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), LowerCaseOf);
  return lower;
}

bool EqualNames(std::string_view a, std::string_view b) noexcept {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return LowerCaseOf(x) == LowerCaseOf(y); });
}

bool IsAddress(const std::string& text) {
  const std::string withoutZone = text.substr(0, text.find('%'));
  in6_addr ignored{};
  return ::inet_pton(AF_INET, text.c_str(), &ignored) == 1 ||
         ::inet_pton(AF_INET6, withoutZone.c_str(), &ignored) == 1;
}

std::optional<std::string_view> THttpRequest::Header(std::string_view name) const {
  for (const auto& [key, value] : Headers) {
    if (EqualNames(key, name)) return value;
  }
  return std::nullopt;
}

bool THttpRequest::Accepts(std::string_view mediaType) const {
  std::string accepted = LowerCase(Header("Accept").value_or(""));
  std::erase_if(accepted, [](char c) { return c == ' ' || c == '\t'; });
  for (const std::string_view range : Split(accepted, ',')) {
    const TPieces parts = Split(range, ';');
    if (*parts.begin() != mediaType) continue;
    if (std::none_of(parts.begin(), parts.end(), IsZeroWeight)) return true;
  }
  return false;
}

THttpResponse PlainResponse(int status) {
  THttpResponse response;
  response.Status = status;
  response.ContentType = "text/plain";
  response.Body.assign(ReasonOf(status)).append("\n");
  return response;
}

std::uint64_t LengthOf(const THttpResponse& response) {
  if (response.File) return response.FileSize;
  std::uint64_t length = response.Body.size();
  for (const auto& text : response.Tail) length += text->size();
  return length;
}

bool HasBody(int status) noexcept { return status != 204 && status != 304; }

std::string HeadOf(const THttpResponse& response, std::string_view extraHeaders, TDateTime utcNow,
                   bool keepAlive) {
  constexpr std::size_t kUsualBytes = 600;
  std::string head;
  head.reserve(kUsualBytes + extraHeaders.size());
  head.append("HTTP/1.1 ").append(std::to_string(response.Status)).append(" ");
  head.append(ReasonOf(response.Status)).append("\r\n");
  AppendHeader(head, "Date", HttpDate(utcNow));
  AppendHeader(head, "Content-Type", response.ContentType);
  AppendHeader(head, "Content-Disposition", response.ContentDisposition);
  if (HasBody(response.Status)) {
    AppendHeader(head, "Content-Length", std::to_string(LengthOf(response)));
  }
  if (response.Status == 405) AppendHeader(head, "Allow", "GET, HEAD");
  AppendHeader(head, "Connection", keepAlive ? "keep-alive" : "close");
  AppendHeader(head, "Cache-Control", response.CacheControl);
  head.append(
      "X-Content-Type-Options: nosniff\r\n"
      "Content-Security-Policy: default-src 'none'; style-src 'unsafe-inline'; "
      "frame-ancestors 'none'; base-uri 'none'; form-action 'none'\r\n"
      "Referrer-Policy: same-origin\r\n"
      "Cross-Origin-Resource-Policy: same-origin\r\n");
  return head.append(extraHeaders).append("\r\n");
}

THttpRequest RequestOf(std::string_view method, std::string_view target) {
  constexpr std::string_view kScheme = "http://";
  THttpRequest request;
  request.Method = method;
  if (EqualNames(target.substr(0, kScheme.size()), kScheme)) {
    target.remove_prefix(kScheme.size());
    const std::size_t end = std::min(target.find_first_of("/?"), target.size());
    request.Headers.emplace_back("Host", target.substr(0, end));
    target.remove_prefix(end);
  }
  const std::size_t mark = std::min(target.find('?'), target.size());
  request.Path = LinkDecode(target.substr(0, mark));
  request.Query = target.substr(std::min(mark + 1, target.size()));
  return request;
}

}  // namespace guardian
