#include "webstatus/StatusPages.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "common/FileDescriptor.h"
#include "common/Settings.h"
#include "common/Texts.h"
#include "support/TempFolder.h"

namespace guardian {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

TSharedText::TText Text(const std::string& text) {
  return std::make_shared<const std::string>(text);
}

class TFakeGuardian final : public TGuardianControl {
 public:
  TGuardianStatus Status() const override { return Now; }
  void RequestStart() override { Requests.emplace_back("start"); }
  void RequestStop() override { Requests.emplace_back("stop"); }
  void RequestTerminate() override { Requests.emplace_back("terminate"); }
  void RequestKill() override { Requests.emplace_back("kill"); }

  TGuardianStatus Now = {
      .StatusText = Text("Status at <i>"),
      .DaemonPath = "/opt/<b>/VellumarkCL",
      .DaemonPathExists = true,
      .MutexPath = "/m/vellumark$qrnd$schedulermutex",
      .DaemonTempPath = "/t&",
      .GotPaths = true,
      .GetPathsError = false,
      .ProcessList = Text("root 1 <x>\r\n\"2\""),
      .ProcessListTime = 46347.25,
      .InitialOutput = Text("TMP=<t>\nLOGS=\n"),
      .ActivityLog = Text("<br>short"),
      .DetailedLog = Text("<br>detailed"),
  };
  std::vector<std::string> Requests;
};

class StatusPagesTest : public testing::Test {
 protected:
  StatusPagesTest() {
    Settings().LogDirectory.Set("/no/such/folder");
    Settings().CommandLine = {"/opt/Vellumark Guardian", "<word>"};
  }

  THttpResponse Answer(const std::string& path, const std::string& site = "",
                       const std::string& method = "GET") {
    THttpRequest request;
    request.Method = method;
    request.Path = path;
    request.SecFetchSite = site;
    return BuildPage(request, {FGuardian.get(), [this] { ++FTerminations; }, std::uint16_t{8900}});
  }
  std::string Get(const std::string& path) {
    const THttpResponse response = Answer(path);
    std::string text = response.Body;
    for (const auto& piece : response.Tail) text += *piece;
    return text;
  }

  std::unique_ptr<TFakeGuardian> FGuardian = std::make_unique<TFakeGuardian>();
  int FTerminations = 0;
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
  EXPECT_EQ(Get("/status.php"), "Guardian running and accessible via port 8900. ");
  EXPECT_EQ(Get("/nosuchpage.php"), kHead);
  EXPECT_EQ(Get("/Status.php"), kHead);
  EXPECT_EQ(Get("/status.php/"), kHead);
  THttpRequest request;
  request.Method = "GET";
  request.Path = "/status.php";
  EXPECT_EQ(BuildPage(request, {}).Body, "Guardian running. ");
}

TEST_F(StatusPagesTest, LeavesEachControlRequestToTheGuardian) {
  EXPECT_EQ(Get("/startdaemon.php"), "VellumarkCL will be started");
  EXPECT_EQ(Get("/stopdaemon.php"), "VellumarkCL will be asked to stop.");
  EXPECT_EQ(Get("/terminatedaemon.php"), "STOP signal will be sent to VellumarkCL");
  EXPECT_EQ(Get("/killdaemon.php"), "KILL signal will be sent to VellumarkCL");
  EXPECT_THAT(FGuardian->Requests, ElementsAre("start", "stop", "terminate", "kill"));
  EXPECT_EQ(FTerminations, 0);
  EXPECT_EQ(Get("/terminateguardian.php"), "Guardian stopped.");
  EXPECT_EQ(FTerminations, 1);
}

TEST_F(StatusPagesTest, DoesNothingForAnotherSiteOrForHead) {
  for (const char* path : {"/startdaemon.php", "/stopdaemon.php", "/terminatedaemon.php",
                           "/killdaemon.php", "/terminateguardian.php"}) {
    EXPECT_EQ(Answer(path, "cross-site").Status, 403) << path;
    EXPECT_EQ(Answer(path, "none", "HEAD").Status, 200) << path;
  }
  EXPECT_THAT(FGuardian->Requests, IsEmpty());
  EXPECT_EQ(FTerminations, 0);
  EXPECT_EQ(Answer("/status.php", "cross-site").Status, 200);
  EXPECT_EQ(Answer("/killdaemon.php", "same-origin").Status, 200);
  EXPECT_THAT(FGuardian->Requests, ElementsAre("kill"));
}

TEST_F(StatusPagesTest, SaysWhenTheGuardianIsGone) {
  FGuardian.reset();
  for (const char* path :
       {"/startdaemon.php", "/stopdaemon.php", "/terminatedaemon.php", "/killdaemon.php"}) {
    EXPECT_EQ(Get(path), "Guardian already freed") << path;
  }
  const std::string page = Get("/");
  EXPECT_THAT(page, StartsWith(kHead + "<table style=\"width:1000px\"><tr><th "
                                       "style=\"width:1000px;text-align:left\">Additional "
                                       "Information</th></tr></table><br>Temp Path: "));
  EXPECT_TRUE(page.ends_with("terminate the Guardian process</a>.<br><br>"));
  EXPECT_THAT(page, Not(HasSubstr("VellumarkCL Temp Path")));
}

TEST_F(StatusPagesTest, ShowsTheMainPageWithEverythingFromOutsideEscaped) {
  const std::string page = Get("/");
  for (const char* path : {"", "\\"}) EXPECT_THAT(Get(path), HasSubstr("Daemon Path: ")) << path;
  EXPECT_THAT(page, StartsWith(kHead +
                               "<b>Status at <i></b><br><br>Daemon Path: "
                               "/opt/&lt;b&gt;/VellumarkCL, Exists: Y<br>Mutex Path: "
                               "/m/vellumark$qrnd$schedulermutex<br>Running as user ID: " +
                               std::to_string(::getuid()) + "<br><br><table"));
  EXPECT_THAT(page, HasSubstr("Command Line: &quot;/opt/Vellumark Guardian&quot; &lt;word&gt; "
                              "<br><br>Allocated Memory: "));
  EXPECT_THAT(page, HasSubstr("<br><br>VellumarkCL Temp Path: /t&amp;<br>Log Path: "
                              "/no/such/folder<br><br>Process List (ps) as of 2026-11-21 "
                              "06:00:00:<br><br>root 1 &lt;x&gt;<br><br>&quot;2&quot;"
                              "<br><br><br><a HREF=\"logfiles.php\">Click here to see the log "
                              "files</a>.<br><br>"));
  EXPECT_TRUE(page.ends_with(
      "<br><hr><br>Guardian Activity Log:<br><br><br>short<br><br><hr><br>Initial output: "
      "TMP=&lt;t&gt;<br>LOGS=<br><br><br><hr><br>Detailed Activity Log:<br><br><br>detailed"
      "<br><br><br>"));
}

TEST_F(StatusPagesTest, ShowsTheStateOfTheHandshakeAndHidesAnEmptyProcessList) {
  FGuardian->Now.GotPaths = false;
  FGuardian->Now.GetPathsError = true;
  FGuardian->Now.ProcessList = Text("");
  FGuardian->Now.ProcessListTime = 0;
  const std::string page = Get("/");
  EXPECT_THAT(page, HasSubstr("<br>Inactive: GotPaths=N, GetPathsError=Y<br><br>Log Path: "));
  EXPECT_THAT(page, Not(HasSubstr("Process List")));
}

TEST_F(StatusPagesTest, ShowsTheThreadReportWithoutAHead) {
  EXPECT_THAT(Get("/threadreport.php"), StartsWith("Thread Report<br>-----------------<br>"));
}

class LogFilesTest : public StatusPagesTest {
 protected:
  LogFilesTest() {
    std::filesystem::create_directory(FFolder.Path("logs"));
    Settings().LogDirectory.Set(FFolder.Path("logs"));
  }

  // Written one second after the one before.
  void Log(const std::string& name, const std::string& text) {
    FFolder.Write("logs/" + name, text);
    const timespec time{.tv_sec = FTime++, .tv_nsec = 0};
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

  // What the HTTP server would stream.
  std::string Streamed(const std::string& path) {
    const THttpResponse response = Answer(path);
    std::string text;
    if (!response.File) return "no file: " + response.Body;
    EXPECT_EQ(ReadToEnd(response.File.Get(), 1 << 20, text), 0);
    EXPECT_EQ(response.FileSize, text.size());
    EXPECT_EQ(response.ContentType, "text/plain");
    return text;
  }

  const TTempFolder FFolder;
  time_t FTime = 1'700'000'000;
};

TEST_F(LogFilesTest, ListsNewestFirst) {
  Log("b.log", "");
  Log("a.log", "");
  --FTime;
  Log("c <&>.log", "");
  Log("no.txt", "");
  EXPECT_EQ(Get("/logfiles.php"),
            kHead +
                "Log Files in Reverse Order<br><br>"
                "<a href=\"vellumark_logs/c%20%26lt%3B%26amp%3B%26gt%3B.log\" "
                "target=\"_blank\">c &lt;&amp;&gt;.log</a><br>"
                "<a href=\"vellumark_logs/a.log\" target=\"_blank\">a.log</a><br>"
                "<a href=\"vellumark_logs/b.log\" target=\"_blank\">b.log</a><br>");
}

TEST_F(LogFilesTest, EveryListedNameLeadsToItsOwnFile) {
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

TEST_F(LogFilesTest, NeverLeavesTheLogFolder) {
  Log("good.log", "good");
  FFolder.Write("secret.log", "secret");
  std::filesystem::create_directory(FFolder.Path("logs2"));
  FFolder.Write("logs2/other.log", "secret");
  std::filesystem::create_directory(FFolder.Path("logs/inner"));
  FFolder.Write("logs/inner/deep.log", "deep");
  std::filesystem::create_symlink(FFolder.Path("secret.log"), FFolder.Path("logs/link.log"));
  std::filesystem::create_symlink("good.log", FFolder.Path("logs/inside.log"));
  std::filesystem::create_symlink("nowhere", FFolder.Path("logs/broken.log"));
  ASSERT_EQ(::mkfifo(FFolder.Path("logs/pipe.log").c_str(), 0600), 0);

  EXPECT_EQ(Streamed("/vellumark_logs/good.log"), "good");
  EXPECT_EQ(Streamed("/vellumark_logs/inside.log"), "good");
  EXPECT_EQ(Streamed("/vellumark_logs/inner/deep.log"), "deep");
  for (const char* path :
       {"/vellumark_logs/../secret.log", "/vellumark_logs/link.log", "/vellumark_logs2/other.log",
        "/vellumark_logs/&#46;&#46;/secret.log", "/vellumark_logs", "/vellumark_logs/",
        "/vellumark_logs/pipe.log", "/vellumark_logs/broken.log", "/vellumark_logs/missing.log",
        "/vellumark_logs/inner", "/vellumark_logs//etc/passwd"}) {
    const THttpResponse response = Answer(path);
    EXPECT_FALSE(response.File) << path;
    EXPECT_THAT(response.Body, StartsWith(kHead + "EXCPTION: ")) << path;
  }
  const std::string nul("/vellumark_logs/good.log\0.txt", 29);
  EXPECT_FALSE(Answer(nul).File);
}

TEST_F(LogFilesTest, SaysThatTheFolderIsGone) {
  const std::string folder = FFolder.Path("logs");
  std::filesystem::remove_all(folder);
  EXPECT_EQ(Get("/logfiles.php"), kHead +
                                      "Log Files in Reverse Order<br><br>EXCPTION: open folder " +
                                      folder + ": No such file or directory (errno 2)");
}

}  // namespace
}  // namespace guardian
