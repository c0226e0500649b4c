#include "ipc/PipeFrame.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <vector>

#include "ipc/SyncCommTypes.h"

namespace guardian {
namespace {

std::string Frame(std::string_view payload) {
  std::string frame;
  AppendFrame(frame, payload);
  return frame;
}

// As a read does that brings `spare` bytes less than there was room for.
std::vector<std::string> Feed(TFrameParser& parser, std::string_view bytes, std::size_t spare = 0) {
  std::vector<std::string> payloads;
  std::copy(bytes.begin(), bytes.end(), parser.Room(bytes.size() + spare).begin());
  parser.Filled(bytes.size(), [&](std::string_view each) { payloads.emplace_back(each); });
  return payloads;
}

TEST(TFrameParserTest, FindsThePayloadsHoweverTheStreamIsCutAndJoined) {
  EXPECT_EQ(Frame(std::string(0x0102, 'x')).substr(0, 13), std::string("***KZMSG\2\1\0\0x", 13));
  TFrameParser parser(300'000);
  for (unsigned seed = 1; seed <= 8; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    std::vector<std::string> sent;
    std::string stream;
    for (const std::size_t length :
         {0U, 1U, 21U, 4075U, 4076U, 4077U, 3209U, 65'515U, 65'516U, 65'517U, 300'000U, 2U}) {
      sent.emplace_back(length, "*M\0"[random() % 3]);
      stream += Frame(sent.back());
    }
    const std::size_t longest = std::array{2U, 30U, 5000U, 200'000U}.at(seed % 4);
    std::vector<std::string> received;
    for (std::size_t at = 0, length = 0; at < stream.size(); at += length) {
      length = random() % longest + 1;
      const auto piece = std::string_view(stream).substr(at, length);
      for (auto& each : Feed(parser, piece, random() % 100)) received.push_back(std::move(each));
    }
    EXPECT_TRUE(received == sent);
    EXPECT_EQ(parser.Buffered(), 0U);
  }
  // Above its limit a header is refused before the payload comes.
  Feed(parser, Frame(std::string(300'000, 'x')).substr(0, 21));
  EXPECT_EQ(parser.Buffered(), 21U);
  TFrameParser fresh(300'000);
  Feed(fresh, Frame(std::string(300'001, 'x')).substr(0, 21));
  EXPECT_EQ(fresh.Buffered(), 0U);
}

TEST(TFrameParserTest, KeepsMemoryForReadsButNotThatOfAHugeFrame) {
  TFrameParser parser;
  // Without memory of its own the text's room lies inside the parser.
  const auto holdsMemory = [&] {
    const char* const self = reinterpret_cast<const char*>(&parser);
    return parser.Room(0).data() < self || parser.Room(0).data() >= self + sizeof(parser);
  };
  Feed(parser, Frame(std::string(65'517, 'x')));
  EXPECT_FALSE(holdsMemory());
  Feed(parser, Frame(std::string(65'516, 'x')));
  EXPECT_TRUE(holdsMemory());

  // In a stream whose pieces never end with a frame the room comes back to the same places.
  std::string stream;
  for (int i = 0; i < 3000; ++i) stream += Frame(std::string(80, 'x'));
  std::set<const char*> places;
  for (std::size_t at = 0; at < stream.size(); at += 60) {
    Feed(parser, std::string_view(stream).substr(at, 60));
    places.insert(parser.Room(0).data());
  }
  EXPECT_LT(places.size(), 100U);
}

TEST(TSyncCommRecordTest, HasTheNumbersAndNamesOfTheWire) {
  std::string expected(kSyncCommRecordBytes, '\0');
  expected[0] = 22;
  EXPECT_TRUE(CommandRecord(TSyncCommMessages::msgEnquireStatus) == expected);
  std::string names;
  for (const int each : {10, 12, 22, 26, 27}) {
    names += NameOf(static_cast<TSyncCommMessages>(each)) + " ";
  }
  for (const int each : {4, 6, 21, 22}) names += NameOf(static_cast<TSchedulerActions>(each)) + " ";
  EXPECT_EQ(names,
            "msgUpdateProfileList msgManuallyRunningInfo msgEnquireStatus msgSkipProfilePhase ?27 "
            "tsaSchedulerRunning tsaStatusUpdate tsaCannotSendINI ?22 ");
}

}  // namespace
}  // namespace guardian
