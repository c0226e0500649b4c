#include "diagnostics/KZLogFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "common/WideText.h"
#include "diagnostics/Diagnostics.h"
#include "diagnostics/logs/ProtocolLog.h"

namespace guardian {
namespace {

const std::string kTime = "2026-11-21 06:00:00: ";

TEST(TKZLogFileTest, AppendsLinesWithTheTimeOfTheCall) {
  const TTempFolder folder;
  const mode_t mask = ::umask(0);
  TFakeClock clock;
  TKZLogFile log(folder.Path("a.log"), clock);
  log.Write("one\ntwo");
  clock.Advance(std::chrono::milliseconds(999));
  log.Write("");
  clock.Advance(std::chrono::milliseconds(1));
  log.WriteLine(u"\u20AC");
  ::umask(mask);
  EXPECT_EQ(folder.Read("a.log"), kTime + "one\ntwo\n" + kTime + "\n2026-11-21 06:00:01: \u20AC\n");
  EXPECT_EQ(std::filesystem::status(folder.Path("a.log")).permissions(),
            std::filesystem::perms(0644));
  TKZLogFile disabled("");
  disabled.Write("text", folder.Path("b.log"));
  disabled.WriteLine(u"text", folder.Path("b.log"));
  EXPECT_THAT(NamesIn(folder), ElementsAre("a.log"));
}

TEST(TKZLogFileTest, MovesAFileAboveTheLimitAwayAtItsStart) {
  const TTempFolder folder;
  const auto start = [&folder](std::uintmax_t size) {
    folder.Write("g.log", "");
    std::filesystem::resize_file(folder.Path("g.log"), size);
    const TKZLogFile log(folder.Path("g.log"));
    return NamesIn(folder);
  };
  EXPECT_THAT(start(10'485'760), ElementsAre("g.log"));
  folder.Write("g.log-previous", "old");
  EXPECT_THAT(start(10'485'761), ElementsAre("g.log-previous"));
  EXPECT_EQ(std::filesystem::file_size(folder.Path("g.log-previous")), 10'485'761U);
  std::filesystem::remove(folder.Path("g.log-previous"));
  std::filesystem::create_directories(folder.Path("g.log-previous/in the way"));
  EXPECT_THAT(start(10'485'761), ElementsAre("g.log-previous"));
}

TEST(TKZLogFileTest, KeepsTheNameOfAWriteForLaterOnes) {
  const TTempFolder folder;
  TFakeClock clock;
  for (const std::string& logFolder : {folder.Path(), folder.Path() + "/", std::string()}) {
    const std::string name = logFolder.empty() ? folder.Path("plain") : "bare";
    TKZLogFile log(folder.Path("first.log"), clock);
    log.SetLogFolder(logFolder);
    log.Write("one", name);
    log.SetLogFolder("/missing");
    log.Write("two");
    log.Write("three", folder.Path("absolute"));
    EXPECT_EQ(log.FileName(), folder.Path("absolute"));
  }
  const std::string lines = kTime + "one\n" + kTime + "two\n";
  EXPECT_EQ(folder.Read("bare.log"), lines + lines);
  EXPECT_EQ(folder.Read("plain"), lines);
  EXPECT_EQ(CountOf(folder.Read("absolute"), kTime + "three\n"), 3);
}

TEST(TKZLogFileTest, TriesForASecondToOpenTheFile) {
  for (const int waits : {9, 10}) {
    const TTempFolder folder;
    TFakeClock clock;
    const std::int64_t start = clock.TickCount();
    TKZLogFile log(folder.Path("late/a.log"), clock);
    TCrew writer(1, [&log](int) { log.Write("text"); });
    EXPECT_TRUE(Eventually([&] {
      if (waits == 9 && clock.TickCount() > start + 850) {
        std::filesystem::create_directory(folder.Path("late"));
      }
      clock.Advance(std::chrono::milliseconds(20));
      return writer.Finished();
    }));
    EXPECT_GE(clock.TickCount(), start + waits * 100);
    EXPECT_EQ(folder.Read("late/a.log").ends_with(": text\n"), waits == 9);
  }
}

TEST(TKZLogFileTest, KeepsLinesOfTwoThreadsWhole) {
  const TTempFolder folder;
  TFakeClock clock;
  TKZLogFile log(folder.Path("two.log"), clock);
  log.Lock();
  TCrew crew(2, [&](int thread) {
    for (int i = 0; i < 1000; ++i) log.Write(std::string(40, thread == 0 ? 'a' : 'b'));
  });
  for (int i = 0; i < 2; ++i) log.Write("a block");
  log.Unlock();
  crew.Join();
  const std::string text = folder.Read("two.log");
  EXPECT_THAT(text, StartsWith(kTime + "a block\n" + kTime + "a block\n"));
  EXPECT_EQ(CountOf(text, kTime + std::string(40, 'a') + "\n"), 1000);
  EXPECT_EQ(CountOf(text, kTime + std::string(40, 'b') + "\n"), 1000);
}

TEST(WideTextTest, ChoosesTheEncodingByTheRoundTrip) {
  const struct {
    std::u16string Text;
    const char* CodePage;
    const char* Expected;
  } cases[] = {
      {u"\u00FC\u00DF", "ISO-8859-1", "\xFC\xDF"},
      {u"\u20AC 5", "ISO-8859-1", "\u20AC 5"},
      {u"\u00FC", "no such code page", "\u00FC"},
      {u"\u65E5 \u672C", "ISO-2022-JP", "\x1B$BF|\x1B(B \x1B$BK\\\x1B(B"},
      {std::u16string(1, char16_t{0xD800}), "ISO-8859-1", "\uFFFD"},
  };
  for (const auto& [text, codePage, expected] : cases) {
    EXPECT_EQ(EncodeForCodePage(text, codePage), expected) << codePage;
  }
}

TEST(TErrorLogTest, DropsLinesWhileClosedAndIsFlushedByOpeningItAnew) {
  EXPECT_FALSE(ErrorLog().Open("/missing/e.log"));
  EXPECT_FALSE(ErrorLog().Enabled());
  EXPECT_TRUE(ErrorLog().Reopen());
  ErrorLog().WriteLine("lost");
  const TErrorLogInFolder log;
  EXPECT_TRUE(ErrorLog().Enabled());
  TFakeClock clock;
  ErrorLog().WriteLine("one");
  FlushLogFile(clock);
  ErrorLog().WriteLine("two");
  EXPECT_EQ(log.Text(), "one\ntwo\n");
  EXPECT_EQ(LastFlushTick(), clock.TickCount());
  std::filesystem::remove(log.Folder().Path("error.log"));
  clock.Advance(-std::chrono::milliseconds(clock.TickCount() + 1));
  testing::internal::CaptureStderr();
  EXPECT_EQ(ThrownMessage([&] { FlushLogFile(clock); }), "Range check error");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Assertion failed: FlushLogFile\n");
  EXPECT_FALSE(ErrorLog().Enabled());
}

TEST(ProtocolLogTest, GivesEachThreadAFileOfItsOwn) {
  const TSettingsBackup backup;
  const TTempFolder folder;
  const TErrorLogInFolder log;
  const auto open = OpenProtocolLogForThread;
  constexpr auto kWhenEnabled = TProtocolLogOpening::WhenEnabled;
  TProtocolLogSettings& settings = ProtocolLogSettings();
  settings.FolderPrefix.Set(folder.Path("p-"));
  const auto before = OpenDescriptors();
  for (int i = 1; i <= 2; ++i) {
    std::string name = "p-base.thread" + std::to_string(i) + "#";
    InThread([&] {
      SetProtocolLogBaseName("base");
      EXPECT_FALSE(open(kWhenEnabled)) << "switched off";
      EXPECT_TRUE(open(TProtocolLogOpening::Forced));
      WriteProtocolLogLine("GET /");
      EXPECT_TRUE(open(kWhenEnabled)) << "it is open";
      for (const int file : OpenDescriptors()) {
        EXPECT_TRUE(before.contains(file) || ::fcntl(file, F_GETFD) == FD_CLOEXEC);
      }
      name += std::to_string(CurrentThreadId()) + ".log";
    });
    EXPECT_EQ(folder.Read(name),
              "\xEF\xBB\xBFInternet Protocol Log for separate thread for base\nGET /\n");
  }
  EXPECT_EQ(OpenDescriptors(), before);

  settings.Enabled = true;
  settings.FolderPrefix.Set(folder.Path("missing/"));
  InThread([&] {
    EXPECT_FALSE(open(kWhenEnabled));
    std::filesystem::create_directory(folder.Path("missing"));
    EXPECT_FALSE(open(kWhenEnabled)) << "a thread tries once";
  });
  EXPECT_EQ(log.Text(), "IndyLogging? IOresult=" + std::to_string(ENOENT) + "\n");

  settings.Enabled = false;
  Settings().CommandLine = {"/bin/prog", "-v", "a b"};
  InThread([&] { EXPECT_TRUE(OpenProtocolLogNamed(folder.Path("named.log"))); });
  EXPECT_TRUE(settings.Enabled);
  EXPECT_EQ(settings.FileName.Copy(), folder.Path("named.log"));
  EXPECT_EQ(folder.Read("named.log"), "Log file opened for /bin/prog -v a b\n");
  InThread([] { EXPECT_FALSE(OpenProtocolLogNamed("/dev/full")); });
  EXPECT_FALSE(settings.Enabled);
}

}  // namespace
}  // namespace guardian
