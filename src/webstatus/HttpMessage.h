#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/Clock.h"
#include "common/FileDescriptor.h"
#include "common/SharedText.h"

namespace guardian {

// Of the letters A to Z, as in names of headers and hosts.
[[nodiscard]] std::string LowerCase(std::string_view text);
[[nodiscard]] bool EqualNames(std::string_view a, std::string_view b) noexcept;

// Whether the text is an IPv4 or IPv6 address, which may name a zone, as in "fe80::1%eth0".
[[nodiscard]] bool IsAddress(const std::string& text);

struct THttpRequest {
  // The value of the first header of that name, in any case of letters; none when there is none.
  [[nodiscard]] std::optional<std::string_view> Header(std::string_view name) const;

  // Whether the first header "Accept" names the media type, which is in lower case and no pattern,
  // with a weight above 0.
  [[nodiscard]] bool Accepts(std::string_view mediaType) const;

  std::string Method;  // "GET" or "HEAD".
  std::string Path;    // Percent-decoded, without the query; as in "/status.php".
  std::string Query;   // What follows the "?", as it was sent.
  std::vector<std::pair<std::string, std::string>> Headers;  // In the order of the request.
};

struct THttpResponse {
  int Status = 200;  // 200 to 599.
  // In these, control characters are sent as "_".
  std::string ContentType = "text/html";
  std::string ContentDisposition = "inline";
  std::string CacheControl = "no-store";
  std::string Body;
  // What follows Body, sent without being copied.
  TTextPieces Tail;
  // When set it is sent instead of both: exactly FileSize bytes from its start, chunk by chunk. A
  // file that turns out to be shorter ends the connection in the middle of the answer.
  TFileDescriptor File;
  std::uint64_t FileSize = 0;
};

// A short answer whose text is the reason of its status.
[[nodiscard]] THttpResponse PlainResponse(int status);

// The number of bytes that follow the head.
[[nodiscard]] std::uint64_t LengthOf(const THttpResponse& response);

// Whether an answer of this status has a body.
[[nodiscard]] bool HasBody(int status) noexcept;

// The response's head: the status line, the response's own headers, those that every answer has,
// and the extra ones, which are lines that end in a line break.
[[nodiscard]] std::string HeadOf(const THttpResponse& response, std::string_view extraHeaders,
                                 TDateTime utcNow, bool keepAlive);

// A request of a target as it was sent: "http://host/path?query" is as good as "/path?query", and
// its host goes before all headers.
[[nodiscard]] THttpRequest RequestOf(std::string_view method, std::string_view target);

}  // namespace guardian
