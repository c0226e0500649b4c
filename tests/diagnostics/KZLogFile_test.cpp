#include "diagnostics/KZLogFile.h"

#include <fcntl.h>
#include <gmock/gmock.h>

#include <map>

#include "common/Exceptions.h"
#include "common/WideText.h"
#include "diagnostics/Diagnostics.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/checkpoints/CheckpointRecord.h"
#include "diagnostics/logs/ProtocolLog.h"
#include "support/FakeClock.h"

namespace guardian {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// A clock whose waits are over at once: the time jumps, and a test may act in between.
class TJumpingClock final : public TClock {
 public:
  TDateTime Now() const override { return 46347.25; }
  TDateTime UtcNow() const override { return 46347.25; }
  std::int64_t TickCount() const override { return FTick; }
  bool WaitUntil([[maybe_unused]] TMutex& mutex, TCondition&, std::int64_t deadlineTick,
                 const std::function<bool()>& predicate) override KZ_REQUIRES(mutex) {
    FWaits.push_back(deadlineTick - FTick);
    FTick = deadlineTick;
    if (FOnWait) FOnWait(FWaits.size());
    return predicate();
  }

  std::vector<std::int64_t> FWaits;
  std::function<void(std::size_t)> FOnWait;

 private:
  std::int64_t FTick = 5000;
};

TEST(TKZLogFileTest, AppendsLinesWithTheTimeOfTheCall) {
  const TTempFolder folder;
  TFakeClock clock;
  TKZLogFile log(folder.Path("a.log"), clock);
  log.Write("one\ntwo");
  clock.Advance(std::chrono::milliseconds(999));
  log.Write("");
  clock.Advance(std::chrono::milliseconds(1));
  log.Write("three");
  EXPECT_EQ(folder.Read("a.log"),
            "2026-11-21 06:00:00: one\ntwo\n"
            "2026-11-21 06:00:00: \n"
            "2026-11-21 06:00:01: three\n");
}

TEST(TKZLogFileTest, IsDisabledForGoodByAnEmptyName) {
  const TTempFolder folder;
  TKZLogFile log("");
  log.Write("text", folder.Path("b.log"));
  log.WriteLine(u"text", folder.Path("b.log"));
  EXPECT_TRUE(log.Disabled());
  EXPECT_THAT(NamesIn(folder), IsEmpty());
}

class TKZLogFileRotationTest : public testing::Test {
 protected:
  void MakeLog(std::int64_t size) {
    FFolder.Write("g.log", "log");
    std::filesystem::resize_file(FFolder.Path("g.log"), static_cast<std::uintmax_t>(size));
  }
  void Create() { const TKZLogFile log(FFolder.Path("g.log")); }

  TTempFolder FFolder;
};

TEST_F(TKZLogFileRotationTest, KeepsAFileOfExactlyMaxSize) {
  MakeLog(10'485'760);
  Create();
  EXPECT_THAT(NamesIn(FFolder), ElementsAre("g.log"));
}

TEST_F(TKZLogFileRotationTest, MovesAFileOfOneByteMoreOverTheOlderOne) {
  MakeLog(10'485'761);
  FFolder.Write("g.log-previous", "old");
  Create();
  EXPECT_THAT(NamesIn(FFolder), ElementsAre("g.log-previous"));
  EXPECT_EQ(std::filesystem::file_size(FFolder.Path("g.log-previous")), 10'485'761U);
}

TEST_F(TKZLogFileRotationTest, DeletesAFileThatCannotBeMoved) {
  MakeLog(10'485'761);
  std::filesystem::create_directories(FFolder.Path("g.log-previous/in the way"));
  Create();
  EXPECT_THAT(NamesIn(FFolder), ElementsAre("g.log-previous"));
}

TEST(TKZLogFileTest, KeepsTheNameOfAWriteForLaterOnes) {
  struct TCase {
    std::string Folder;
    std::string Name;
    std::string Expected;
  };
  const TTempFolder folder;
  std::filesystem::create_directory(folder.Path("logs"));
  const std::vector<TCase> cases = {
      {folder.Path("logs"), "report", folder.Path("logs/report.log")},
      {folder.Path("logs/"), "other", folder.Path("logs/other.log")},
      {folder.Path("logs"), folder.Path("a.txt"), folder.Path("a.txt")},
      {"", folder.Path("b.txt"), folder.Path("b.txt")},
  };
  for (const auto& [logFolder, name, expected] : cases) {
    SCOPED_TRACE(expected);
    TKZLogFile log(folder.Path("first.log"));
    log.SetLogFolder(logFolder);
    log.Write("one", name);
    log.Write("two");
    EXPECT_EQ(log.FileName(), expected);
    const std::string text = folder.Read(expected.substr(folder.Path().size() + 1));
    EXPECT_EQ(WithoutTimes(text), "<date>: one\n<date>: two\n");
  }
  EXPECT_FALSE(folder.Has("first.log"));
}

TEST(TKZLogFileTest, TakesABareNameForTheWorkingFolderWhenNoLogFolderIsSet) {
  const TTempFolder folder;
  TKZLogFile log(folder.Path("never.log"));
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(folder.Path());
  log.Write("text", "report");
  std::filesystem::current_path(before);
  EXPECT_THAT(NamesIn(folder), ElementsAre("report"));
}

TEST(TKZLogFileTest, DropsTheLineAfterTenAttempts) {
  const TTempFolder folder;
  TJumpingClock clock;
  TKZLogFile log(folder.Path("missing/a.log"), clock);
  log.Write("lost");
  EXPECT_EQ(clock.FWaits, std::vector<std::int64_t>(10, 100));
  EXPECT_THAT(NamesIn(folder), IsEmpty());
}

TEST(TKZLogFileTest, WritesTheLineWhenTheTenthAttemptSucceeds) {
  const TTempFolder folder;
  TJumpingClock clock;
  clock.FOnWait = [&folder](std::size_t count) {
    if (count == 9) std::filesystem::create_directory(folder.Path("late"));
  };
  TKZLogFile log(folder.Path("late/a.log"), clock);
  log.Write("kept");
  EXPECT_EQ(clock.FWaits.size(), 9U);
  EXPECT_EQ(folder.Read("late/a.log"), "2026-11-21 06:00:00: kept\n");
}

TEST(TKZLogFileTest, KeepsLinesOfTwoThreadsWhole) {
  constexpr int kLines = 1000;
  const TTempFolder folder;
  TKZLogFile log(folder.Path("two.log"));
  const auto write = [&log](char letter) {
    for (int i = 0; i < kLines; ++i) log.Write(std::string(40, letter));
  };
  TFunctionThread other("Other", [&write] { write('b'); });
  other.Start();
  write('a');
  other.Join();
  std::map<std::string, int> lines;
  std::istringstream text(WithoutTimes(folder.Read("two.log")));
  for (std::string line; std::getline(text, line);) ++lines[line];
  EXPECT_EQ(lines, (std::map<std::string, int>{{"<date>: " + std::string(40, 'a'), kLines},
                                               {"<date>: " + std::string(40, 'b'), kLines}}));
}

TEST(TKZLogFileTest, LetsTheHolderOfItsLockWriteABlock) {
  const TTempFolder folder;
  TKZLogFile log(folder.Path("block.log"));
  std::atomic<TCheckpointRecord*> record = nullptr;
  TFunctionThread other("Other", [&] {
    record = KZCP::CurrentRecord();
    log.Write("other");
  });
  log.Lock();
  other.Start();
  EXPECT_TRUE(Eventually([&] { return record != nullptr && record.load()->AwaitedLock(); }));
  log.Write("one");
  log.Write("two");
  log.Unlock();
  other.Join();
  EXPECT_EQ(WithoutTimes(folder.Read("block.log")), "<date>: one\n<date>: two\n<date>: other\n");
}

TEST(WideTextTest, ChoosesTheEncodingByTheRoundTrip) {
  struct TCase {
    std::u16string Text;
    std::string CodePage;
    std::string Expected;
  };
  const std::u16string half(1, char16_t{0xD800});
  const std::vector<TCase> cases = {
      {u"plain", "ISO-8859-1", "plain"},
      {u"Gr\u00FC\u00DFe", "ISO-8859-1",
       "Gr\xFC\xDF"
       "e"},
      {u"\u20AC 5", "ISO-8859-1", "\xE2\x82\xAC 5"},
      {u"\u20AC 5", "ISO-8859-15", "\xA4 5"},
      {u"\u00FC", "ANSI_X3.4-1968", "\xC3\xBC"},
      {u"\u00FC", "UTF-8", "\xC3\xBC"},
      {u"\u00FC", "no such code page", "\xC3\xBC"},
      {u"\u65E5\u672C \u65E5\u672C", "ISO-2022-JP", "\x1B$BF|K\\\x1B(B \x1B$BF|K\\\x1B(B"},
      {half, "ISO-8859-1", "\xEF\xBF\xBD"},
      {u"", "ISO-8859-1", ""},
  };
  for (const auto& [text, codePage, expected] : cases) {
    SCOPED_TRACE(codePage + " " + expected);
    EXPECT_EQ(EncodeForCodePage(text, codePage), expected);
  }
}

TEST(TKZLogFileTest, WritesWideTextsOfAnyKindToOneFile) {
  const TTempFolder folder;
  TKZLogFile log(folder.Path("wide.log"));
  log.WriteLine(u"plain");
  log.WriteLine(u"\u20AC", folder.Path("wide.log"));
  EXPECT_EQ(WithoutTimes(folder.Read("wide.log")), "<date>: plain\n<date>: \xE2\x82\xAC\n");
}

TEST(TErrorLogTest, DropsLinesWhileClosedAndAppendsOtherwise) {
  const TTempFolder folder;
  folder.Write("e.log", "before\n");
  TErrorLog log;
  log.WriteLine("lost");
  EXPECT_TRUE(log.Reopen());
  EXPECT_FALSE(log.Open(folder.Path("missing/e.log")));
  EXPECT_FALSE(log.Enabled());
  ASSERT_TRUE(log.Open(folder.Path("e.log")));
  EXPECT_TRUE(log.Enabled());
  log.WriteLine("kept");
  log.Close();
  log.WriteLine("lost");
  EXPECT_EQ(folder.Read("e.log"), "before\nkept\n");
}

TEST(FlushLogFileTest, ReopensTheErrorLogAndRemembersTheTime) {
  const TErrorLogInFolder log;
  TFakeClock clock;
  ErrorLog().WriteLine("one");
  FlushLogFile(clock);
  ErrorLog().WriteLine("two");
  EXPECT_EQ(log.Text(), "one\ntwo\n");
  EXPECT_EQ(LastFlushTick(), clock.TickCount());
}

TEST(FlushLogFileTest, ReportsAnErrorLogThatCannotBeReopened) {
  const TErrorLogInFolder log;
  std::filesystem::remove(log.Folder().Path("error.log"));
  testing::internal::CaptureStderr();
  FlushLogFile();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Assertion failed: FlushLogFile\n");
  EXPECT_FALSE(ErrorLog().Enabled());
}

TEST(FlushLogFileTest, FailsOnANegativeTickCount) {
  TFakeClock clock;
  clock.Advance(std::chrono::milliseconds(-1'000'001));
  EXPECT_THROW(FlushLogFile(clock), KZException);
}

class ProtocolLogTest : public testing::Test {
 protected:
  ProtocolLogTest() {
    ProtocolLogSettings().FolderPrefix.Set(FFolder.Path("p-"));
    ProtocolLogSettings().ThreadCount = 0;
  }
  ~ProtocolLogTest() override { ProtocolLogSettings().Enabled = false; }

  static bool Open(TProtocolLogOpening opening = TProtocolLogOpening::WhenEnabled) {
    return OpenProtocolLogForThread(opening);
  }

  TTempFolder FFolder;
};

TEST_F(ProtocolLogTest, GivesEachThreadAFileOfItsOwn) {
  ProtocolLogSettings().Enabled = true;
  std::vector<std::string> expected;
  for (int i = 1; i <= 2; ++i) {
    InThread([&] {
      SetProtocolLogBaseName("base");
      EXPECT_TRUE(Open());
      EXPECT_TRUE(Open()) << "the second call finds it open";
      WriteProtocolLogLine("GET /");
      expected.push_back("p-base.thread" + std::to_string(i) + "#" +
                         std::to_string(CurrentThreadId()) + ".log");
    });
  }
  ASSERT_EQ(NamesIn(FFolder), expected);
  EXPECT_EQ(FFolder.Read(expected[0]),
            "\xEF\xBB\xBFInternet Protocol Log for separate thread for base\nGET /\n");
}

TEST_F(ProtocolLogTest, NeedsForceWhenSwitchedOff) {
  InThread([this] {
    EXPECT_FALSE(Open());
    WriteProtocolLogLine("nowhere");
    EXPECT_THAT(NamesIn(FFolder), IsEmpty());
    EXPECT_TRUE(Open(TProtocolLogOpening::Forced));
    EXPECT_TRUE(Open()) << "open is open";
  });
}

TEST_F(ProtocolLogTest, TriesOncePerThreadAndReportsTheFailureOnce) {
  const TErrorLogInFolder log;
  ProtocolLogSettings().FolderPrefix.Set(FFolder.Path("missing/"));
  InThread([this] {
    EXPECT_FALSE(Open(TProtocolLogOpening::Forced));
    std::filesystem::create_directory(FFolder.Path("missing"));
    EXPECT_FALSE(Open(TProtocolLogOpening::Forced));
    EXPECT_FALSE(ProtocolLogIsOpen());
  });
  EXPECT_EQ(log.Text(), "IndyLogging? IOresult=" + std::to_string(ENOENT) + "\n");
  InThread([] { EXPECT_TRUE(Open(TProtocolLogOpening::Forced)) << "another thread may"; });
}

TEST_F(ProtocolLogTest, OpensANamedFileForTheProcess) {
  const auto commandLine = std::exchange(Settings().CommandLine, {"/bin/prog", "-v", "a b"});
  InThread([this] {
    EXPECT_TRUE(OpenProtocolLogNamed(FFolder.Path("named.log")));
    EXPECT_TRUE(ProtocolLogIsOpen());
  });
  Settings().CommandLine = commandLine;
  EXPECT_TRUE(ProtocolLogSettings().Enabled);
  EXPECT_EQ(ProtocolLogSettings().FileName.Copy(), FFolder.Path("named.log"));
  EXPECT_EQ(FFolder.Read("named.log"), "Log file opened for /bin/prog -v a b\n");
  InThread([this] { EXPECT_FALSE(OpenProtocolLogNamed(FFolder.Path("missing/x.log"))); });
  EXPECT_FALSE(ProtocolLogSettings().Enabled);
}

std::map<int, int> DescriptorFlags() {
  std::map<int, int> flags;
  for (int descriptor = 0; descriptor < 256; ++descriptor) {
    const int value = ::fcntl(descriptor, F_GETFD);
    if (value >= 0) flags[descriptor] = value;
  }
  return flags;
}

TEST_F(ProtocolLogTest, KeepsOpenFilesFromChildrenAndClosesThemWithTheThread) {
  const auto before = DescriptorFlags();
  {
    const TErrorLogInFolder log;
    InThread([&before] {
      ASSERT_TRUE(Open(TProtocolLogOpening::Forced));
      auto added = DescriptorFlags();
      for (const auto& [descriptor, flags] : before) added.erase(descriptor);
      ASSERT_EQ(added.size(), 2U);
      for (const auto& [descriptor, flags] : added) EXPECT_EQ(flags, FD_CLOEXEC) << descriptor;
    });
  }
  EXPECT_EQ(DescriptorFlags(), before);
}

}  // namespace
}  // namespace guardian
