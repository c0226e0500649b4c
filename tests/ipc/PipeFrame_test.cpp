#include "ipc/PipeFrame.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "ipc/SyncCommTypes.h"

namespace guardian {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class FrameParserTest : public testing::Test {
 protected:
  std::vector<std::string> Feed(TFrameParser& parser, std::string_view bytes) {
    std::vector<std::string> payloads;
    parser.Feed(bytes, [&](std::string_view payload) { payloads.emplace_back(payload); });
    return payloads;
  }
  std::vector<std::string> Feed(std::string_view bytes) { return Feed(FParser, bytes); }

  TFrameParser FParser;
};

TEST_F(FrameParserTest, BuildsTheFrameOfTheWire) {
  const std::string frame = BuildFrame("abc");
  EXPECT_EQ(frame, std::string("***KZMSG\3\0\0\0abc**MSGEND", 23));
  EXPECT_EQ(BuildFrame("").size(), 20U);
}

TEST_F(FrameParserTest, TakesTwoFramesCutAtAnyByte) {
  const std::string stream = BuildFrame("first") + BuildFrame(std::string(300, '*'));
  for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
    std::vector<std::string> payloads = Feed(stream.substr(0, cut));
    for (const std::string& payload : Feed(stream.substr(cut))) payloads.push_back(payload);
    ASSERT_THAT(payloads, ElementsAre("first", std::string(300, '*'))) << cut;
    ASSERT_EQ(FParser.Buffered(), 0U) << cut;
  }
}

TEST_F(FrameParserTest, TakesFramesOfAnyLengthInRandomPieces) {
  std::mt19937 random(20261121);
  std::vector<std::string> sent;
  std::string stream;
  for (std::size_t length :
       {1UL, 12UL, 20UL, 21UL, 4075UL, 4076UL, 4077UL, 3209UL, 65'536UL, 1'000'000UL, 2UL}) {
    sent.emplace_back(length, static_cast<char>('a' + length % 26));
    stream += BuildFrame(sent.back());
  }
  std::vector<std::string> received;
  for (std::size_t at = 0; at < stream.size();) {
    const std::size_t length = random() % 5000 + 1;
    for (std::string& payload : Feed(std::string_view(stream).substr(at, length))) {
      received.push_back(std::move(payload));
    }
    at += length;
  }
  EXPECT_TRUE(received == sent);
}

TEST_F(FrameParserTest, HoldsAFrameWithoutPayloadUntilMoreFollows) {
  EXPECT_THAT(Feed(BuildFrame("")), IsEmpty());
  EXPECT_EQ(FParser.Buffered(), 20U);
  EXPECT_THAT(Feed("*"), ElementsAre(""));
  EXPECT_THAT(Feed(BuildFrame("x").substr(1)), ElementsAre("x"));
}

TEST_F(FrameParserTest, DropsEverythingBufferedOnAFramingError) {
  const std::string good = BuildFrame("good");
  std::string badTrailer = good;
  badTrailer[good.size() - 1] = 'x';
  std::string shortLength = good;
  shortLength[8] = 3;
  struct TCase {
    const char* Name;
    std::string Bytes;
    std::vector<std::string> Payloads;
  };
  const std::vector<TCase> cases = {
      {"garbage before a good frame", "x" + good, {}},
      {"garbage behind a good frame", good + std::string(21, 'x') + good, {"good"}},
      {"tag in lower case", "***kzmsg" + good.substr(8), {}},
      {"wrong trailer", badTrailer + good, {}},
      {"length that cuts the payload", shortLength + good, {}},
  };
  for (const TCase& c : cases) {
    SCOPED_TRACE(c.Name);
    EXPECT_EQ(Feed(c.Bytes), c.Payloads);
    EXPECT_EQ(FParser.Buffered(), 0U);
    EXPECT_THAT(Feed(good), ElementsAre("good"));
  }
  EXPECT_THAT(Feed(std::string(20, 'x')), IsEmpty());
  EXPECT_EQ(FParser.Buffered(), 20U) << "too short to be judged";
}

TEST_F(FrameParserTest, RefusesAHeaderAboveItsLimit) {
  TFrameParser parser(10);
  EXPECT_THAT(Feed(parser, BuildFrame(std::string(10, 'a'))), ElementsAre(std::string(10, 'a')));
  EXPECT_THAT(Feed(parser, BuildFrame(std::string(11, 'a'))), IsEmpty());
  EXPECT_EQ(parser.Buffered(), 0U);
  EXPECT_THAT(Feed(std::string("***KZMSG\xff\xff\xff\xff*********", 21)), IsEmpty());
  EXPECT_EQ(FParser.Buffered(), 21U) << "no limit was set";
}

TEST_F(FrameParserTest, SurvivesRandomDamage) {
  std::mt19937 random(1);
  const std::string good = BuildFrame("payload");
  for (int round = 0; round < 20'000; ++round) {
    TFrameParser parser(1000);
    std::string bytes = good + good;
    for (int damage = 0; damage < 3; ++damage) {
      bytes[random() % bytes.size()] = static_cast<char>(random());
    }
    Feed(parser, bytes);
    ASSERT_LE(parser.Buffered(), 1000 + kFrameOverhead);
  }
}

TEST(SyncCommRecordTest, TravelsUnchangedAndCutsOnlyWholeRecords) {
  TSyncCommRecord record{};
  record.SchedulerAction = static_cast<std::uint8_t>(TSchedulerActions::tsaSchedulerRunning);
  record.Pulse = 0x0102030405060708;
  record.FirstText.Set("Job");
  record.DetailText.Set(std::string(300, 'd'));
  const std::string bytes = RecordBytes(record);
  EXPECT_EQ(bytes[1095], 4);
  EXPECT_EQ(bytes.substr(1616, 8), std::string("\x08\x07\x06\x05\x04\x03\x02\x01"));
  EXPECT_EQ(bytes.substr(1096, 5), std::string("\x03Job\0", 5));

  const std::string two = bytes + RecordBytes({});
  std::string_view payload = two;
  const auto first = TakeRecord(payload);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->FirstText.Text(), "Job");
  EXPECT_EQ(first->DetailText.Text(), std::string(255, 'd'));
  EXPECT_TRUE(TakeRecord(payload));
  EXPECT_FALSE(TakeRecord(payload));
  const std::string odd = two + "x";
  payload = odd;
  EXPECT_FALSE(TakeRecord(payload));
}

TEST(SyncCommRecordTest, ACommandDiffersFromZerosOnlyInItsFirstByte) {
  std::string expected(kSyncCommRecordBytes, '\0');
  expected[0] = 22;
  EXPECT_TRUE(CommandRecord(TSyncCommMessages::msgEnquireStatus) == expected);
}

TEST(SyncCommRecordTest, NamesWhatLogLinesShow) {
  EXPECT_EQ(NameOf(TSyncCommMessages::msgEnquireStatus), "msgEnquireStatus");
  EXPECT_EQ(NameOf(TSyncCommMessages::msgUpdateProfileListWithINI), "msgUpdateProfileList");
  EXPECT_EQ(NameOf(TSyncCommMessages::msgManuallyRunningInfoOBSOLETE), "msgManuallyRunningInfo");
  EXPECT_EQ(NameOf(TSyncCommMessages::msgSkipProfilePhase), "msgSkipProfilePhase");
  EXPECT_EQ(NameOf(TSchedulerActions::tsaCannotSendINI), "tsaCannotSendINI");
  EXPECT_EQ(NameOf(static_cast<TSchedulerActions>(22)), "?22");
}

}  // namespace
}  // namespace guardian
