#include "webstatus/StatusPages.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>

#include "common/FileDescriptor.h"
#include "common/Settings.h"
#include "common/Texts.h"
#include "support/SettingsBackup.h"
#include "support/TempFolder.h"

namespace guardian {
namespace {

using testing::ElementsAre;
using testing::StartsWith;

TSharedText::TText Text(const std::string& text) {
  return std::make_shared<const std::string>(text);
}

class TFakeGuardian final : public TGuardianControl {
 public:
  TGuardianStatus Status() const override { return Now; }
  void RequestStart() override { Requests += "start "; }
  void RequestStop() override { Requests += "stop "; }
  void RequestTerminate() override { Requests += "terminate "; }
  void RequestKill() override { Requests += "kill "; }

  TGuardianStatus Now = {
      .StatusText = Text("Status at <i>"),
      .DaemonPath = "/opt/<b>/VellumarkCL",
      .DaemonPathExists = true,
      .MutexPath = "/m&/mutex",
      .DaemonTempPath = "/t&",
      .GotPaths = true,
      .GetPathsError = false,
      .ProcessList = Text("root 1 <x>\r\n\"2\""),
      .ProcessListTime = 46347.25,
      .InitialOutput = Text("TMP=<t>\nLOGS=\n"),
      .ActivityLog = Text("<br>short"),
      .DetailedLog = Text("<br>detailed"),
  };
  std::string Requests;
};

class StatusPagesTest : public testing::Test {
 protected:
  StatusPagesTest() {
    Settings().LogDirectory.Set("/no/such/<folder>");
    Settings().TempDirectory.Set("/tmp&");
    Settings().CommandLine = {"/opt/Vellumark Guardian", "<word>"};
  }

  THttpResponse Answer(const std::string& path, const std::string& site = "",
                       const std::string& method = "GET") {
    THttpRequest request;
    request.Method = method;
    request.Path = path;
    request.SecFetchSite = site;
    return BuildPage(request, {FHasGuardian ? &FGuardian : nullptr,
                               [this] { FGuardian.Requests += "end "; }, FPort});
  }
  std::string Get(const std::string& path) {
    const THttpResponse response = Answer(path);
    std::string text = response.Body;
    for (const auto& piece : response.Tail) text += *piece;
    return text;
  }

  const TSettingsBackup FBackup;
  TFakeGuardian FGuardian;
  bool FHasGuardian = true;
  std::optional<std::uint16_t> FPort = 8900;
};

const std::string kHead =
    "<!DOCTYPE html><html><title>Vellumark Guardian 1.50, Build 10</title><head><meta "
    "http-equiv=\"Content-Type\" content=\"text/html; charset=UTF-8\"><style>* { font-family: "
    "Arial, Helvetica, sans-serif; }table, th, td { border: 1px solid lightgray; border-collapse: "
    "collapse; }th { background-color: #e0e9f5; color: black; }tr:nth-child(even){background-color:"
    " #f2f2f2}</style></head><body><table style=\"width:1000px\"><tr><th "
    "style=\"width:1000px;text-align:left\">Vellumark Guardian 1.50, Build "
    "10</th></tr></table><br>";

TEST_F(StatusPagesTest, AnswersShortPagesByteForByte) {
  const struct {
    const char* Path;
    std::string Start;
    const char* Type = "text/html";
  } cases[] = {
      {"/status.php", "Guardian running and accessible via port 8900. "},
      {"/nosuchpage.php", kHead},
      {"/Status.php", kHead},
      {"/status.php/", kHead},
      {"/threadreport.php", "Thread Report<br>-----------------<br>"},
      {"/status.json", "{\"version\":\"1.50\"", "application/json"},
      {"/metrics", "# TYPE vellumark_guardian_build info\n",
       "application/openmetrics-text; version=1.0.0; charset=utf-8"},
      {"/logfiles.php", kHead + "Log Files in Reverse Order<br><br>EXCPTION: open folder "
                                "/no/such/&lt;folder&gt;: No such file or directory (errno 2)"},
  };
  for (const auto& item : cases) {
    const bool isShort = item.Start.starts_with("Guardian") || item.Start == kHead;
    EXPECT_THAT(Get(item.Path), isShort ? testing::Matcher<std::string>(item.Start)
                                        : testing::Matcher<std::string>(StartsWith(item.Start)));
    EXPECT_EQ(Answer(item.Path).ContentType, item.Type);
    EXPECT_EQ(Answer(item.Path, "cross-site").Status, 200);
  }
  FPort.reset();
  EXPECT_EQ(Get("/status.php"), "Guardian running. ");
  Settings().LogDirectory.Set("");
  EXPECT_EQ(Get("/logfiles.php"), kHead + "Log Files in Reverse Order<br><br>");
}

TEST_F(StatusPagesTest, LeavesEachControlRequestToTheGuardianAndActsForNobodyElse) {
  const struct {
    const char* Path;
    const char* Answer;
    const char* Request;
  } pages[] = {
      {"/startdaemon.php", "VellumarkCL will be started", "start "},
      {"/stopdaemon.php", "VellumarkCL will be asked to stop.", "stop "},
      {"/terminatedaemon.php", "STOP signal will be sent to VellumarkCL", "terminate "},
      {"/killdaemon.php", "KILL signal will be sent to VellumarkCL", "kill "},
      {"/terminateguardian.php", "Guardian stopped.", "end "},
  };
  for (const auto& page : pages) {
    SCOPED_TRACE(page.Path);
    FHasGuardian = true;
    for (const char* const site : {"", "same-origin", "none"}) {
      EXPECT_EQ(Answer(page.Path, site).Body, page.Answer);
      EXPECT_EQ(std::exchange(FGuardian.Requests, ""), page.Request);
    }
    EXPECT_EQ(Answer(page.Path, "", "HEAD").Body, page.Answer);
    const THttpResponse refused = Answer(page.Path, "cross-site");
    EXPECT_EQ(refused.Status, 403);
    EXPECT_EQ(refused.Body, "Refused: the request comes from another site.");
    EXPECT_EQ(FGuardian.Requests, "");
    FHasGuardian = false;
    const bool isEnd = std::string_view(page.Request) == "end ";
    EXPECT_EQ(Get(page.Path), isEnd ? page.Answer : "Guardian already freed");
    EXPECT_EQ(std::exchange(FGuardian.Requests, ""), isEnd ? page.Request : "");
  }
}

// The main page, from the texts that depend on the state.
std::string MainPage(const std::string& daemon, const std::string& paths,
                     const std::string& processes, const std::string& logs) {
  return kHead + daemon +
         "<table style=\"width:1000px\"><tr><th style=\"width:1000px;text-align:left\">Additional "
         "Information</th></tr></table><br>Temp Path: /tmp&amp;<br>Command Line: &quot;/opt/"
         "Vellumark Guardian&quot; &lt;word&gt; <br><br>MEMORY<br><br>" +
         paths + "Log Path: /no/such/&lt;folder&gt;<br><br>" + processes +
         "<a HREF=\"logfiles.php\">Click here to see the log files</a>.<br><br>"
         "<a HREF=\"threadreport.php\">Click here to see the thread report</a>.<br><br><br>"
         "<a HREF=\"startdaemon.php\">Click here to start the VellumarkCL daemon</a>.<br><br>"
         "<a HREF=\"stopdaemon.php\">Click here to stop the VellumarkCL daemon gracefully</a>."
         "<br><br><a HREF=\"terminatedaemon.php\">Click here to send a STOP signal to the "
         "VellumarkCL daemon</a>.<br><br><a HREF=\"killdaemon.php\">Click here to kill the "
         "VellumarkCL daemon</a>.<br><br><a HREF=\"terminateguardian.php\">Click here to terminate "
         "the Guardian process</a>.<br><br>" +
         logs;
}

TEST_F(StatusPagesTest, ShowsTheMainPageWithEverythingFromOutsideEscaped) {
  const std::regex memory("Allocated Memory: [0-9.]+ [A-Za-z]+, Used Memory: [0-9.]+ [A-Za-z]+");
  const auto page = [&](const char* path = "/") {
    return std::regex_replace(Get(path), memory, "MEMORY");
  };
  const std::string user = "Running as user ID: " + std::to_string(::getuid()) + "<br><br>";
  const std::string daemon =
      "<b>Status at <i></b><br><br>Daemon Path: /opt/&lt;b&gt;/VellumarkCL, Exists: Y<br>Mutex "
      "Path: /m&amp;/mutex<br>" +
      user;
  const std::string paths = "VellumarkCL Temp Path: /t&amp;<br>";
  const std::string logs =
      "<br><hr><br>Guardian Activity Log:<br><br><br>short<br><br><hr><br>Initial output: "
      "TMP=&lt;t&gt;<br>LOGS=<br><br><br><hr><br>Detailed Activity Log:<br><br><br>detailed"
      "<br><br><br>";
  const std::string processes =
      "Process List (ps) as of 2026-11-21 06:00:00:<br><br>root 1 &lt;x&gt;<br><br>&quot;2&quot;"
      "<br><br><br>";
  for (const char* path : {"", "/", "\\"}) {
    EXPECT_EQ(page(path), MainPage(daemon, paths, processes, logs));
  }
  EXPECT_EQ(Answer("/").Tail.at(2), FGuardian.Now.DetailedLog);  // Not a copy.

  FGuardian.Now.ProcessList = Text("");
  EXPECT_EQ(page(),
            MainPage(daemon, paths,
                     "Process List (ps) as of 2026-11-21 06:00:00:<br><br><br><br><br>", logs));
  FGuardian.Now.ProcessListTime = 0;
  FGuardian.Now.DaemonPathExists = false;
  for (const bool gotPaths : {true, false}) {
    FGuardian.Now.GotPaths = gotPaths;
    FGuardian.Now.GetPathsError = gotPaths;
    const std::string inactive = std::string("Inactive: GotPaths=") + (gotPaths ? "Y" : "N") +
                                 ", GetPathsError=" + (gotPaths ? "Y" : "N") + "<br><br>";
    EXPECT_EQ(page(),
              MainPage(ReplaceAll(daemon, "Exists: Y", "Exists: N"), paths + inactive, "", logs));
  }
  FHasGuardian = false;
  EXPECT_EQ(page(), MainPage("", "", "", ""));
}

class LogDownloadsTest : public StatusPagesTest {
 protected:
  LogDownloadsTest() {
    std::filesystem::create_directory(FFolder.Path("logs"));
    Settings().LogDirectory.Set(FFolder.Path("logs"));
  }

  // Written one nanosecond after the one before.
  void Log(const std::string& name, const std::string& text) {
    FFolder.Write("logs/" + name, text);
    const timespec time{.tv_sec = 1'700'000'000, .tv_nsec = FTime++};
    const timespec times[2] = {time, time};
    ASSERT_EQ(::utimensat(AT_FDCWD, FFolder.Path("logs/" + name).c_str(), times, 0), 0);
  }

  // The targets of the links on the page, percent-decoded as the HTTP server does it.
  std::vector<std::string> ListedPaths() {
    std::vector<std::string> paths;
    const std::string page = Get("/logfiles.php");
    const std::string start = "<a href=\"";
    for (std::size_t at = page.find(start); at != std::string::npos; at = page.find(start, at)) {
      at += start.size();
      paths.push_back("/" + LinkDecode(page.substr(at, page.find('"', at) - at)));
    }
    return paths;
  }

  // The bytes that the HTTP server would stream.
  std::string Streamed(const std::string& path) {
    const THttpResponse response = Answer(path);
    std::string text;
    if (!response.File) return "no file: " + response.Body;
    EXPECT_EQ(::fcntl(response.File.Get(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(ReadToEnd(response.File.Get(), 1 << 20, text), 0);
    EXPECT_EQ(response.FileSize, text.size());
    EXPECT_EQ(response.ContentType, "text/plain");
    EXPECT_EQ(response.Body, "");
    return text;
  }

  const TTempFolder FFolder;
  long FTime = 0;
};

TEST_F(LogDownloadsTest, ListsNewestFirst) {
  Log("b.log", "");
  Log("a.log", "");
  --FTime;
  Log("c <&>.log", "");
  Log("no.txt", "");
  Log("no.log.gz", "");
  std::filesystem::create_directory(FFolder.Path("logs/folder.log"));
  EXPECT_EQ(Get("/logfiles.php"),
            kHead +
                "Log Files in Reverse Order<br><br>"
                "<a href=\"vellumark_logs/c%20%26lt%3B%26amp%3B%26gt%3B.log\" "
                "target=\"_blank\">c &lt;&amp;&gt;.log</a><br>"
                "<a href=\"vellumark_logs/a.log\" target=\"_blank\">a.log</a><br>"
                "<a href=\"vellumark_logs/b.log\" target=\"_blank\">b.log</a><br>");
}

TEST_F(LogDownloadsTest, EveryListedNameLeadsToItsOwnFile) {
  const std::vector<std::string> names = {
      "plain.log",    "with blank.log", "quote\".log",      "apostrophe'.log", "100%.log",
      "%41.log",      "a<b>c.log",      "amp&amp;.log",     "&#65;.log",       "caf\xc3\xa9.log",
      "\xff\xfe.log", "a+b.log",        "semi;colon#?.log", "back\\slash.log", "new\nline.log"};
  for (const std::string& name : names) Log(name, "content of " + name);
  const std::vector<std::string> paths = ListedPaths();
  ASSERT_EQ(paths.size(), names.size());
  for (std::size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(Streamed(paths[names.size() - 1 - i]), "content of " + names[i]) << names[i];
  }
}

TEST_F(LogDownloadsTest, NeverLeavesTheLogFolder) {
  Log("good.log", "good");
  for (const char* folder : {"logs2", "logs/inner"}) {
    std::filesystem::create_directory(FFolder.Path(folder));
  }
  FFolder.Write("secret.log", "secret");
  FFolder.Write("logs2/other.log", "secret");
  FFolder.Write("logs/inner/deep.log", "deep");
  std::filesystem::create_symlink(FFolder.Path("secret.log"), FFolder.Path("logs/link.log"));
  std::filesystem::create_symlink("good.log", FFolder.Path("logs/inside.log"));
  std::filesystem::create_symlink("nowhere", FFolder.Path("logs/broken.log"));
  std::filesystem::create_symlink("logs", FFolder.Path("linked"));
  ASSERT_EQ(::mkfifo(FFolder.Path("logs/pipe.log").c_str(), 0600), 0);

  for (const char* const folder : {"logs", "logs/", "linked"}) {
    Settings().LogDirectory.Set(FFolder.Path(folder));
    EXPECT_EQ(Streamed("/vellumark_logs/good.log"), "good");
    EXPECT_EQ(Streamed("/vellumark_logs/inside.log"), "good");
    EXPECT_EQ(Streamed("/vellumark_logs/inner/deep.log"), "deep");
    for (const char* path : {"/../secret.log", "/link.log", "2/other.log", "/&#46;&#46;/secret.log",
                             "", "/", "/pipe.log", "/broken.log", "/missing.log", "/inner",
                             "//etc/passwd", "/../logs2/other.log"}) {
      const THttpResponse response = Answer("/vellumark_logs" + std::string(path));
      EXPECT_FALSE(response.File) << path;
      EXPECT_THAT(response.Body, StartsWith(kHead + "EXCPTION: ")) << path;
    }
    EXPECT_FALSE(Answer(std::string("/vellumark_logs/good.log\0.txt", 29)).File);
  }
}

}  // namespace
}  // namespace guardian
