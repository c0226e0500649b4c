#include "ipc/PipeFrame.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <random>
#include <set>

#include "ipc/SyncCommTypes.h"

namespace guardian {
namespace {

using testing::ElementsAre;

std::string Frame(std::string_view payload) {
  std::string frame;
  AppendFrame(frame, payload);
  return frame;
}

class FrameParserTest : public testing::Test {
 protected:
  // As a read does that brings `spare` bytes less than there was room for.
  std::vector<std::string> Feed(std::string_view bytes, std::size_t spare = 0) {
    std::vector<std::string> payloads;
    const std::span<char> room = FParser.Room(bytes.size() + spare);
    EXPECT_EQ(room.size(), bytes.size() + spare);
    std::copy(bytes.begin(), bytes.end(), room.begin());
    FParser.Filled(bytes.size(), [&](std::string_view each) { payloads.emplace_back(each); });
    return payloads;
  }

  // Whether the parser holds memory of its own.
  bool HoldsMemory() {
    const char* const self = reinterpret_cast<const char*>(&FParser);
    const char* const room = FParser.Room(0).data();
    return room < self || room >= self + sizeof(FParser);
  }

  TFrameParser FParser;
};

TEST_F(FrameParserTest, AppendsTheFrameOfTheWire) {
  std::string text = "before";
  AppendFrame(text, "abc");
  EXPECT_EQ(text, std::string("before***KZMSG\3\0\0\0abc**MSGEND", 29));
  EXPECT_EQ(Frame(std::string(0x010203, 'x')).substr(8, 4), std::string("\3\2\1\0", 4));
}

TEST_F(FrameParserTest, FindsThePayloadsHoweverTheStreamIsCutAndJoined) {
  for (unsigned seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    std::vector<std::string> sent;
    std::string stream;
    for (const std::size_t length : {0U, 1U, 12U, 20U, 21U, 4075U, 4076U, 4077U, 3209U, 65'515U,
                                     65'516U, 65'517U, 300'000U, 2U}) {
      sent.emplace_back(length, "*M\0"[random() % 3]);
      stream += Frame(sent.back());
    }
    const std::size_t longest = std::array{2U, 30U, 5000U, 200'000U}.at(seed % 4);
    std::vector<std::string> received;
    std::string_view rest = stream;
    while (!rest.empty()) {
      const std::string_view piece = rest.substr(0, random() % longest + 1);
      for (auto& payload : Feed(piece, random() % 100)) received.push_back(std::move(payload));
      rest.remove_prefix(piece.size());
    }
    EXPECT_TRUE(received == sent);
    EXPECT_EQ(FParser.Buffered(), 0U);
  }
}

TEST_F(FrameParserTest, RefusesAHeaderAboveItsLimit) {
  for (const std::size_t size : {9U, 10U, 11U}) {
    TFrameParser parser(10);
    const std::string frame = Frame(std::string(size, 'a'));
    std::copy(frame.begin(), frame.end(), parser.Room(21).begin());
    parser.Filled(21, [](std::string_view) {});
    EXPECT_EQ(parser.Buffered(), size > 10 ? 0U : 21U) << "from the header alone";
  }
}

TEST_F(FrameParserTest, KeepsMemoryForReadsButNotThatOfAHugeFrame) {
  Feed(Frame(std::string(65'517, 'x')));
  EXPECT_FALSE(HoldsMemory());
  Feed(Frame(std::string(65'516, 'x')));
  EXPECT_TRUE(HoldsMemory());

  // In a stream whose pieces never end with a frame the room comes back to the same places.
  const std::string frame = Frame(std::string(80, 'x'));
  std::string stream;
  for (int i = 0; i < 3000; ++i) stream += frame;
  std::set<const char*> places;
  for (std::size_t at = 0; at < stream.size(); at += 60) {
    Feed(std::string_view(stream).substr(at, 60));
    places.insert(FParser.Room(0).data());
  }
  EXPECT_LT(places.size(), 100U);
}

TEST(SyncCommRecordTest, HasTheNumbersAndNamesOfTheWire) {
  std::string expected(kSyncCommRecordBytes, '\0');
  expected[0] = 22;
  EXPECT_TRUE(CommandRecord(TSyncCommMessages::msgEnquireStatus) == expected);
  const auto message = [](int ordinal) { return NameOf(static_cast<TSyncCommMessages>(ordinal)); };
  const auto action = [](int ordinal) { return NameOf(static_cast<TSchedulerActions>(ordinal)); };
  EXPECT_THAT((std::vector{message(1), message(10), message(12), message(22), message(26)}),
              ElementsAre("msgUpdateProfileListAndStartTimer", "msgUpdateProfileList",
                          "msgManuallyRunningInfo", "msgEnquireStatus", "msgSkipProfilePhase"));
  EXPECT_THAT((std::vector{action(4), action(6), action(21)}),
              ElementsAre("tsaSchedulerRunning", "tsaStatusUpdate", "tsaCannotSendINI"));
  EXPECT_EQ(message(27) + action(22), "?27?22");
}

}  // namespace
}  // namespace guardian
