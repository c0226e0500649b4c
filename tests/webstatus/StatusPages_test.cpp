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

using testing::HasSubstr;
using testing::Matcher;
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
  std::string Get(const std::string& path, const std::string& site = "") {
    const THttpResponse response = Answer(path, site);
    std::string text = response.Body;
    for (const auto& piece : response.Tail) text += *piece;
    return text;
  }

  // The bytes that the HTTP server would stream; else the page.
  std::string Streamed(const std::string& path) {
    const THttpResponse response = Answer(path);
    std::string text;
    if (!response.File) return response.Body;
    EXPECT_EQ(::fcntl(response.File.Get(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(ReadToEnd(response.File.Get(), 1 << 20, text), 0);
    EXPECT_EQ(response.FileSize, text.size());
    EXPECT_EQ(response.ContentType + response.Body, "text/plain");
    return text;
  }

  const TSettingsBackup FBackup;
  const TTempFolder FFolder;
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
    Matcher<std::string> Text;
    const char* Type = "text/html";
  } cases[] = {
      {"/status.php", std::string("Guardian running and accessible via port 8900. ")},
      {"/nosuchpage.php", kHead},
      {"/Status.php", kHead},
      {"/status.php/", kHead},
      {"/threadreport.php", StartsWith("Thread Report<br>-----------------<br>")},
      {"/status.json", StartsWith("{\"version\":\"1.50\""), "application/json"},
      {"/metrics", StartsWith("# TYPE vellumark_guardian_build info\n"),
       "application/openmetrics-text; version=1.0.0; charset=utf-8"},
      {"/logfiles.php", kHead + "Log Files in Reverse Order<br><br>EXCPTION: open folder "
                                "/no/such/&lt;folder&gt;: No such file or directory (errno 2)"},
  };
  for (const auto& item : cases) {
    EXPECT_THAT(Get(item.Path), item.Text);
    EXPECT_EQ(Answer(item.Path, "cross-site").Status, 200);
    EXPECT_EQ(Answer(item.Path).ContentType, item.Type);
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
    const char* WithoutGuardian = "Guardian already freed";
  } pages[] = {
      {"/startdaemon.php", "VellumarkCL will be started", "start "},
      {"/stopdaemon.php", "VellumarkCL will be asked to stop.", "stop "},
      {"/terminatedaemon.php", "STOP signal will be sent to VellumarkCL", "terminate "},
      {"/killdaemon.php", "KILL signal will be sent to VellumarkCL", "kill "},
      {"/terminateguardian.php", "Guardian stopped.", "end ", "Guardian stopped."},
  };
  std::string requests;
  for (const auto& page : pages) {
    SCOPED_TRACE(page.Path);
    FHasGuardian = true;
    for (const char* const site : {"", "same-origin", "none"}) {
      EXPECT_EQ(Answer(page.Path, site).Body, page.Answer);
      EXPECT_EQ(FGuardian.Requests, requests += page.Request);
    }
    EXPECT_EQ(Answer(page.Path, "", "HEAD").Body, page.Answer);
    EXPECT_EQ(Answer(page.Path, "cross-site").Status, 403);
    EXPECT_EQ(Get(page.Path, "cross-site"), "Refused: the request comes from another site.");
    FHasGuardian = false;
    EXPECT_EQ(Answer(page.Path, "", "HEAD").Body, page.WithoutGuardian);
    EXPECT_EQ(FGuardian.Requests, requests);
  }
  EXPECT_EQ(Get("/killdaemon.php"), "Guardian already freed");
  EXPECT_EQ(Get("/terminateguardian.php"), "Guardian stopped.");
  EXPECT_EQ(FGuardian.Requests, requests + "end ");
}

TEST_F(StatusPagesTest, ShowsTheMainPageWithEverythingFromOutsideEscaped) {
  const auto page = [this](const char* path = "/") {
    const std::regex sizes("Memory: [0-9.]+ [A-Za-z]+");
    return std::regex_replace(Get(path), sizes, "Memory: n");
  };
  const std::string daemon =
      "<b>Status at <i></b><br><br>Daemon Path: /opt/&lt;b&gt;/VellumarkCL, Exists: Y<br>Mutex "
      "Path: /m&amp;/mutex<br>Running as user ID: " +
      std::to_string(::getuid()) + "<br><br>";
  const std::string paths = "VellumarkCL Temp Path: /t&amp;<br>";
  const std::string processes = "root 1 &lt;x&gt;<br><br>&quot;2&quot;";
  const std::string list =
      "Process List (ps) as of 2026-11-21 06:00:00:<br><br>" + processes + "<br><br><br>";
  const std::string logs =
      "<br><hr><br>Guardian Activity Log:<br><br><br>short<br><br><hr><br>Initial output: "
      "TMP=&lt;t&gt;<br>LOGS=<br><br><br><hr><br>Detailed Activity Log:<br><br><br>detailed"
      "<br><br><br>";
  std::string expected =
      kHead + daemon +
      "<table style=\"width:1000px\"><tr><th style=\"width:1000px;text-align:left\">Additional "
      "Information</th></tr></table><br>Temp Path: /tmp&amp;<br>Command Line: &quot;/opt/Vellumark "
      "Guardian&quot; &lt;word&gt; <br><br>Allocated Memory: n, Used Memory: n<br><br>" +
      paths + "Log Path: /no/such/&lt;folder&gt;<br><br>" + list +
      "<a HREF=\"logfiles.php\">Click here to see the log files</a>.<br><br>"
      "<a HREF=\"threadreport.php\">Click here to see the thread report</a>.<br><br><br>"
      "<a HREF=\"startdaemon.php\">Click here to start the VellumarkCL daemon</a>.<br><br>"
      "<a HREF=\"stopdaemon.php\">Click here to stop the VellumarkCL daemon gracefully</a>."
      "<br><br><a HREF=\"terminatedaemon.php\">Click here to send a STOP signal to the VellumarkCL "
      "daemon</a>.<br><br><a HREF=\"killdaemon.php\">Click here to kill the VellumarkCL daemon</a>."
      "<br><br><a HREF=\"terminateguardian.php\">Click here to terminate the Guardian process</a>."
      "<br><br>" +
      logs;
  for (const char* path : {"", "/", "\\"}) EXPECT_EQ(page(path), expected);
  EXPECT_EQ(Answer("/").Tail.at(2), FGuardian.Now.DetailedLog);  // Not a copy.

  FGuardian.Now.ProcessList = Text("");
  EXPECT_EQ(page(), ReplaceAll(expected, processes, ""));
  FGuardian.Now.ProcessListTime = 0;
  expected = ReplaceAll(expected, list, "");
  EXPECT_EQ(page(), expected);
  FGuardian.Now.GetPathsError = true;
  const std::string inactive = "Inactive: GotPaths=Y, GetPathsError=Y<br><br>";
  EXPECT_EQ(page(), ReplaceAll(expected, paths, paths + inactive));
  FGuardian.Now.GotPaths = FGuardian.Now.GetPathsError = FGuardian.Now.DaemonPathExists = false;
  expected = ReplaceAll(expected, paths, paths + ReplaceAll(inactive, "=Y", "=N"));
  EXPECT_EQ(page(), ReplaceAll(expected, "Exists: Y", "Exists: N"));
  FHasGuardian = false;
  for (const auto& part : {daemon, paths, ReplaceAll(inactive, "=Y", "=N"), logs}) {
    expected = ReplaceAll(expected, part, "");
  }
  EXPECT_EQ(page(), expected);
}

// Two at a time were written in the same nanosecond.
TEST_F(StatusPagesTest, ListsLogFilesNewestFirstByALinkThatLeadsToIt) {
  std::filesystem::create_directories(FFolder.Path("logs/folder.log"));
  Settings().LogDirectory.Set(FFolder.Path("logs"));
  const std::vector<std::string> names = {
      "plain.log",       "with blank.log", "apostrophe'.log", "quote\".log",      "%41.log",
      "100%.log",        "a<b>c.log",      "amp&amp;.log",    "&#65;.log",        "a+b.log",
      "caf\xc3\xa9.log", "\xff\xfe.log",   "back\\slash.log", "semi;colon#?.log", "new\nline.log"};
  for (std::size_t i = 0; i < names.size(); ++i) {
    FFolder.Write("logs/" + names[i], "content of " + names[i]);
    const timespec time{.tv_sec = 1'700'000'000, .tv_nsec = static_cast<long>(i / 2)};
    const timespec times[2] = {time, time};
    ASSERT_EQ(::utimensat(AT_FDCWD, FFolder.Path("logs/" + names[i]).c_str(), times, 0), 0);
  }
  for (const char* const other : {"logs/no.txt", "logs/no.log.gz"}) FFolder.Write(other, "");
  const std::string page = Get("/logfiles.php");
  EXPECT_THAT(page, StartsWith(kHead + "Log Files in Reverse Order<br><br><a href=\"vellumark_logs/"
                                       "new%0Aline.log\" target=\"_blank\">new\nline.log</a><br>"));
  EXPECT_THAT(page, HasSubstr("a%26lt%3Bb%26gt%3Bc.log\" target=\"_blank\">a&lt;b&gt;c."));
  std::size_t left = names.size();
  for (const std::string_view piece : Split(page, '"')) {
    if (!piece.starts_with("vellumark_logs/")) continue;
    ASSERT_GT(left, 0U);
    EXPECT_EQ(Streamed("/" + LinkDecode(piece)), "content of " + names[--left]);
  }
  EXPECT_EQ(left, 0U);
}

TEST_F(StatusPagesTest, NeverLeavesTheLogFolder) {
  for (const char* folder : {"logs2", "logs/inner"}) {
    std::filesystem::create_directories(FFolder.Path(folder));
  }
  for (const char* name :
       {"secret.log", "logs2/other.log", "logs/good.log", "logs/inner/deep.log"}) {
    FFolder.Write(name, name);
  }
  std::filesystem::create_symlink("../secret.log", FFolder.Path("logs/link.log"));
  std::filesystem::create_symlink("good.log", FFolder.Path("logs/inside.log"));
  std::filesystem::create_symlink("logs", FFolder.Path("linked"));
  ASSERT_EQ(::mkfifo(FFolder.Path("logs/pipe.log").c_str(), 0600), 0);
  for (const char* const folder : {"logs", "logs/", "linked"}) {
    Settings().LogDirectory.Set(FFolder.Path(folder));
    EXPECT_EQ(Streamed("/vellumark_logs/good.log"), "logs/good.log");
    EXPECT_EQ(Streamed("/vellumark_logs/inside.log"), "logs/good.log");
    EXPECT_EQ(Streamed("/vellumark_logs/inner/deep.log"), "logs/inner/deep.log");
    for (const std::string path :
         {"/../secret.log", "/link.log", "2/other.log", "/&#46;&#46;/secret.log", "", "/",
          "/pipe.log", "/missing.log", "/inner", "//etc/passwd", "/../logs2/other.log"}) {
      EXPECT_THAT(Streamed("/vellumark_logs" + path), StartsWith(kHead + "EXCPTION: "));
    }
    EXPECT_FALSE(Answer(std::string("/vellumark_logs/good.log\0.txt", 29)).File);
  }
}

}  // namespace
}  // namespace guardian
