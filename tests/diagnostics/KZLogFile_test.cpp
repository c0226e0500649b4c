#include "diagnostics/KZLogFile.h"

#include "common/WideText.h"
#include "diagnostics/exception_report.h"
#include "diagnostics/logs/ProtocolLog.h"
#include "support/TestSupport.h"

namespace guardian {
namespace {

const std::string kTime = "2026-11-21 06:00:00: ";

TEST(TKZLogFileTest, AppendsWholeLinesWithTheTimeToTheFileThatWasNamedLast) {
  const TTempFolder folder;
  TFakeClock clock;
  TKZLogFile log(folder.Path("b.log"), clock);
  log.SetLogFolder(folder.Path());
  log.Write("one\ntwo", "a");
  log.SetLogFolder("/missing");
  log.Write("a block", folder.Path("b.log"));
  log.Write("");
  EXPECT_EQ(folder.Read("a.log"), kTime + "one\ntwo\n");
  clock.Advance(std::chrono::seconds(1));
  log.WriteLine(u"\u20AC");
  EXPECT_EQ(folder.Read("b.log"), kTime + "a block\n" + kTime + "\n2026-11-21 06:00:01: \u20AC\n");
}

TEST(TKZLogFileTest, MovesAFileAboveTheLimitAwayAtItsStart) {
  const TTempFolder folder;
  const auto start = [&folder](std::uintmax_t size) {
    folder.Write("g.log", "");
    std::filesystem::resize_file(folder.Path("g.log"), size);
    const TKZLogFile log(folder.Path("g.log"));
    return folder.Has("g.log");
  };
  EXPECT_TRUE(start(10'485'760));
  EXPECT_FALSE(folder.Has("g.log-previous"));
  folder.Write("g.log-previous", "old");
  EXPECT_FALSE(start(10'485'761));
  EXPECT_EQ(std::filesystem::file_size(folder.Path("g.log-previous")), 10'485'761U);
  std::filesystem::remove(folder.Path("g.log-previous"));
  std::filesystem::create_directories(folder.Path("g.log-previous/in its way"));
  EXPECT_FALSE(start(10'485'761)) << "it begins anew all the same";
}

TEST(ProtocolLogTest, HasAFileForEachThreadThatIsTriedOnceAndTellsOfAFailureOnce) {
  const TSettingsBackup backup;
  const TErrorLogInFolder errors;
  const TTempFolder& folder = errors.Folder();
  Settings().LogDirectory.Set(folder.Path());
  TProtocolLogSettings& settings = ProtocolLogSettings();
  const auto open = [&](const std::string& folderPrefix) {
    settings.FolderPrefix.Set(folderPrefix);
    SetProtocolLogBaseName("name");
    return OpenProtocolLogForThread(TProtocolLogOpening::Forced);
  };
  InThread([&] {
    EXPECT_FALSE(OpenProtocolLogForThread(TProtocolLogOpening::WhenEnabled));
    EXPECT_TRUE(open(folder.Path("p-")));
    WriteProtocolLogLine("one");
    EXPECT_EQ(folder.Read("p-name.thread1#" + std::to_string(CurrentThreadId()) + ".log"),
              "\xEF\xBB\xBFInternet Protocol Log for separate thread for name\none\n");
    EXPECT_TRUE(OpenProtocolLogNamed(folder.Path("n.log")) && settings.Enabled);
    HandleException(std::make_exception_ptr(5), TLogToFiles::Yes, "here");
    EXPECT_THAT(folder.Read("n.log"), ContainsRegex("^Log file opened for .*\nWhere: here"));
    EXPECT_FALSE(OpenProtocolLogNamed("/missing/n.log") || settings.Enabled);
  });
  InThread([&] { EXPECT_FALSE(open("/missing/") || open(folder.Path("p-"))); });
  EXPECT_EQ(CountOf(errors.Text(), "IndyLogging? IOresult=2\n"), 1);
}

TEST(WideTextTest, ChoosesTheEncodingByTheRoundTrip) {
  EXPECT_EQ(EncodeForCodePage(u"\u00FC\u00DF", "ISO-8859-1"), "\xFC\xDF");
  EXPECT_EQ(EncodeForCodePage(u"\u20AC 5", "ISO-8859-1"), "\u20AC 5");
  EXPECT_EQ(EncodeForCodePage(u"\U0010FFFF", "UTF-8"), "\U0010FFFF");
  EXPECT_EQ(EncodeForCodePage(u"\u00FC", "no such code page"), "\u00FC");
  EXPECT_EQ(EncodeForCodePage(u"\u65E5 \u672C", "ISO-2022-JP"), "\x1B$BF|\x1B(B \x1B$BK\\\x1B(B");
}

}  // namespace
}  // namespace guardian
