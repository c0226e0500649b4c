// Input: a byte of switches, a line that says how the stream is cut, what a client sends.

#include <sys/mman.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Fuzz.h"
#include "common/Exceptions.h"
#include "webstatus/HttpServer.h"
#include "webstatus/RawClient.h"

namespace guardian {
namespace {

// Behind every stream: completes or breaks whatever request is under way, and asks for the end.
constexpr std::string_view kEnding = "\r\n\r\nGET /end HTTP/1.1\r\nConnection: close\r\n\r\n";

TFileDescriptor FileOf(std::size_t size) {
  TFileDescriptor file(::memfd_create("answer", MFD_CLOEXEC));
  Require(WriteAll(file.Get(), std::string(size, 'f')) == 0, "no file in memory");
  return file;
}

// Says what it was asked; the disposition tells the reader of the answer the method, which decides
// whether a body follows.
THttpResponse Answer(const THttpRequest& request) {
  Require(request.Method == "GET" || request.Method == "HEAD",
          "the handler gets " + request.Method);
  THttpResponse response;
  response.ContentType = "text/plain; path=" + request.Path;
  response.ContentDisposition = request.Method;
  response.Body = request.Path + "?" + request.Query + " from " +
                  std::string(request.Header("Sec-Fetch-Site").value_or(""));
  if (request.Path.starts_with("/status/")) response.Status = std::atoi(request.Path.c_str() + 8);
  if (request.Path == "/throw" && request.Method == "GET") throw KZException("as asked");
  if (request.Path == "/file") {
    response.FileSize = request.Query.size() * 1000;
    response.File = FileOf(response.FileSize);
  }
  return response;
}

// Of a GET only, since an answer to HEAD would not tell that it is one.
THttpResponse AnswerWithinRange(const THttpRequest& request) {
  THttpResponse response = Answer(request);
  if (request.Method == "HEAD") response.Status = std::clamp(response.Status, 200, 599);
  return response;
}

THttpServerOptions ServerOptions() {
  THttpServerOptions options;
  options.MaxHeaderBytes = 1500;
  options.HeaderTimeout = options.WriteTimeout = options.CloseTimeout = std::chrono::minutes(10);
  options.OnError = [](const std::exception_ptr& error) {
    const std::string text = MessageOf(error);
    Require(text == "as asked" || text.starts_with("HTTP status "), "the server reports " + text);
  };
  return options;
}

std::uint16_t Port() {
  static THttpServer server(AnswerWithinRange, ServerOptions());
  if (!server.Active()) server.Activate(0);
  return server.Port();
}

struct TAnswer {
  int Status = 0;
  std::string Head;
  std::string Body;

  bool operator==(const TAnswer&) const = default;
  [[nodiscard]] bool Has(std::string_view line) const {
    return Head.find("\r\n" + std::string(line) + "\r\n") != std::string::npos;
  }
  [[nodiscard]] bool HasBody() const {
    return Status != 204 && Status != 304 && !Has("Content-Disposition: HEAD");
  }
};

// Each header once, none that the server does not send by itself.
void CheckHead(std::string_view head) {
  std::set<std::string_view> allowed = {
      "Content-Type",
      "Content-Disposition",
      "Content-Length",
      "Allow",
      "Connection",
      "Cache-Control",
      "X-Content-Type-Options",
      "Content-Security-Policy",
      "Date",
      "Referrer-Policy",
      "Cross-Origin-Resource-Policy",
  };
  head.remove_prefix(head.find("\r\n") + 2);
  while (!head.starts_with("\r\n")) {
    const std::size_t end = head.find("\r\n");
    const std::string_view line = head.substr(0, end);
    Require(allowed.erase(line.substr(0, line.find(": "))) == 1, "header " + std::string(line));
    Require(std::none_of(line.begin(), line.end(), [](char c) { return c == '\r' || c == '\n'; }),
            "a line end within " + std::string(line));
    head.remove_prefix(end + 2);
  }
}

std::size_t LengthOf(const TAnswer& answer) {
  const std::size_t at = answer.Head.find("\r\nContent-Length: ");
  Require(at != std::string::npos, "an answer without a length");
  return std::stoul(answer.Head.substr(at + 18));
}

TAnswer TakeAnswer(std::string_view& stream) {
  const std::size_t end = stream.find("\r\n\r\n");
  Require(stream.starts_with("HTTP/1.1 ") && end != std::string_view::npos,
          "no answer: " + std::string(stream));
  TAnswer answer;
  answer.Head = stream.substr(0, end + 4);
  answer.Status = std::stoi(answer.Head.substr(9, 3));
  CheckHead(answer.Head);
  // Two answers may come in two seconds.
  const std::size_t date = answer.Head.find("\r\nDate: ");
  Require(date != std::string::npos, "an answer without a date");
  answer.Head.erase(date, answer.Head.find("\r\n", date + 2) - date);
  stream.remove_prefix(end + 4);
  if (!answer.HasBody()) return answer;
  const std::size_t length = LengthOf(answer);
  Require(length <= stream.size(), "an answer that ends early");
  answer.Body = stream.substr(0, length);
  stream.remove_prefix(length);
  return answer;
}

std::vector<TAnswer> TakeAnswers(std::string_view stream) {
  std::vector<TAnswer> answers;
  while (!stream.empty()) {
    Require(answers.empty() || answers.back().Has("Connection: keep-alive"),
            "an answer behind the last one");
    answers.push_back(TakeAnswer(stream));
  }
  Require(!answers.empty() && answers.back().Has("Connection: close"),
          "the last answer is missing");
  // Whether a header is found too long or bad first depends on how much of it came at once.
  if (answers.back().Status == 431 || answers.back().Status == 400) answers.back() = {400, {}, {}};
  return answers;
}

enum class TThen { ReadAnswers, Abandon };

std::vector<TAnswer> Exchange(const std::vector<std::string_view>& pieces, TThen then) {
  TRawClient client(Port());
  for (const std::string_view piece : pieces) client.Send(piece);
  std::vector<TAnswer> answers;
  if (then == TThen::ReadAnswers) answers = TakeAnswers(client.ReadToEnd());
  // A reset leaves no trace of the connection: thousands of them come in a second.
  client.Reset();
  return answers;
}

void CheckStillAnswers() {
  static auto client = std::make_unique<TRawClient>(Port());
  TRawReply reply = client->Get("/good");
  if (reply.Head.empty()) {
    client = std::make_unique<TRawClient>(Port());
    reply = client->Get("/good");
  }
  Require(reply.Status() == 200 && reply.Body == "/good? from ",
          "a good request gets " + reply.Head);
}

void CheckStream(const std::string& stream, std::string_view rule, TThen then) {
  const std::vector<TAnswer> cut = Exchange(CutByRule(stream, rule), then);
  if (then == TThen::ReadAnswers && !rule.empty()) {
    Require(cut == Exchange({stream}, then), "the answers depend on how the stream is cut");
  }
  CheckStillAnswers();
}

}  // namespace
}  // namespace guardian

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  guardian::TFuzzInput input(data, size);
  const bool abandon = (input.Byte() & 1U) != 0;
  const std::string_view rule = input.Line();
  guardian::CheckStream(std::string(input.Rest()).append(guardian::kEnding), rule,
                        abandon ? guardian::TThen::Abandon : guardian::TThen::ReadAnswers);
  return 0;
}
