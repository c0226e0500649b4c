// Input: a byte that sets the limit of a frame, a line that says how the stream is cut, the stream.

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "Fuzz.h"
#include "ipc/PipeFrame.h"

namespace guardian {
namespace {

// The parser by the plainest means: a text that is looked at from its start and cut there.
class TPlainParser {
 public:
  explicit TPlainParser(std::uint32_t limit) : FLimit(limit) {}

  void Feed(std::string_view bytes) {
    Rest += bytes;
    while (Rest.size() > 20 && TakeFrame()) continue;
  }

  std::string Rest;
  std::vector<std::string> Payloads;
  bool SawError = false;

 private:
  bool TakeFrame() {
    std::size_t size = 0;
    for (std::size_t i = 0; i < 4; ++i) size |= std::size_t{Byte(8 + i)} << (8 * i);
    if (Rest.compare(0, 8, "***KZMSG") != 0 || size > FLimit) return Drop();
    if (Rest.size() < size + 20) return false;
    if (Rest.compare(12 + size, 8, "**MSGEND") != 0) return Drop();
    Payloads.push_back(Rest.substr(12, size));
    Rest.erase(0, size + 20);
    return true;
  }

  std::uint8_t Byte(std::size_t at) const { return static_cast<std::uint8_t>(Rest[at]); }

  bool Drop() {
    Rest.clear();
    SawError = true;
    return false;
  }

  const std::uint32_t FLimit;
};

// As a read does that brings less than there was room for.
std::vector<std::string> Feed(TFrameParser& parser, std::string_view piece, std::size_t spare) {
  std::vector<std::string> payloads;
  const std::span<char> room = parser.Room(piece.size() + spare);
  std::copy(piece.begin(), piece.end(), room.begin());
  parser.Filled(piece.size(), [&](std::string_view payload) { payloads.emplace_back(payload); });
  return payloads;
}

// Returns what came out; after each piece the parser is where the plain one is.
std::vector<std::string> FeedPieces(const std::vector<std::string_view>& pieces,
                                    std::uint32_t limit) {
  TFrameParser parser(limit);
  TPlainParser plain(limit);
  std::vector<std::string> payloads;
  std::size_t spare = 0;
  for (const std::string_view piece : pieces) {
    for (std::string& payload : Feed(parser, piece, spare)) payloads.push_back(std::move(payload));
    plain.Feed(piece);
    Require(payloads == plain.Payloads, "other payloads than the plain parser's");
    Require(parser.Buffered() == plain.Rest.size(), "another number of bytes is buffered");
    spare = 7 - spare;
  }
  return payloads;
}

void CheckCuts(std::string_view stream, std::string_view rule, std::uint32_t limit) {
  const std::vector<std::string> whole = FeedPieces({stream}, limit);
  const std::vector<std::string> cut = FeedPieces(CutByRule(stream, rule), limit);
  // An error drops what has come so far, which is more when it comes at once; up to there, and
  // without one, the cuts make no difference.
  Require(cut.size() >= whole.size() && std::equal(whole.begin(), whole.end(), cut.begin()),
          "a cut stream loses or changes a payload");
  TPlainParser plain(limit);
  plain.Feed(stream);
  Require(plain.SawError || cut == whole, "a good stream depends on its cuts");
}

void CheckRoundTrip(std::string_view payload) {
  TFrameParser parser;
  std::string stream;
  AppendFrame(stream, payload);
  const std::vector<std::string> payloads = Feed(parser, stream + "*", 0);
  Require(payloads.size() == 1 && payloads.front() == payload, "a frame does not come back");
  Require(parser.Buffered() == 1, "the byte behind a frame is lost");
}

}  // namespace
}  // namespace guardian

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  guardian::TFuzzInput input(data, size);
  const std::uint32_t limit = input.Byte();
  const std::string_view rule = input.Line();
  guardian::CheckCuts(input.Rest(), rule, limit == 0 ? guardian::kNoFrameLimit : 4 * limit);
  guardian::CheckRoundTrip(input.Rest());
  return 0;
}
