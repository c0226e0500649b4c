#include "webstatus/StatusPages.h"

#include <sys/inotify.h>

#include <random>
#include <regex>

#include "common/AtEnd.h"
#include "diagnostics/KZCheckpoints.h"
#include "support/TestSupport.h"
#include "webstatus/ActivityLog.h"
#include "webstatus/OverviewPage.h"
#include "webstatus/RawClient.h"
#include "webstatus/WebStatusServer.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;

class TFakeGuardian final : public TGuardianControl {
 public:
  TGuardianStatus Status() const override {
    if (Throws) throw KZException("on purpose");
    return Now;
  }
  void RequestStart() override { Requests += "start "; }
  void RequestStop() override { Requests += "stop "; }
  void RequestTerminate() override { Requests += "terminate "; }
  void RequestKill() override { Requests += "kill "; }
  void Hold(std::chrono::minutes length) override {
    Requests += "hold " + std::to_string(length.count()) + " ";
  }
  void Release() override { Requests += "release "; }

  TGuardianStatus Now = {
      .StatusText = MakeText("Status at <i>"),
      .DaemonPath = "/opt/<b>/VellumarkCL",
      .DaemonPathExists = true,
      .MutexPath = "/m&/mutex",
      .DaemonTempPath = "/t&",
      .GotPaths = true,
      .ProcessList = MakeText("root 1 <x>\r\n\"2\""),
      .ProcessListTime = 46347.25,
      .InitialOutput = MakeText("TMP=<t>\nLOGS=\n"),
      .ActivityLog = {MakeText("<br>sh"), MakeText("ort")},
      .DetailedLog = {MakeText("<br>detailed")},
  };
  std::string Requests;
  bool Throws = false;
};

class StatusPagesTest : public testing::Test {
 protected:
  StatusPagesTest() {
    Settings().LogDirectory.Set("/no/such/<folder>");
    Settings().TempDirectory.Set("/tmp&");
    Settings().CommandLine = {"/opt/Vellumark Guardian", "<word>"};
  }

  THttpResponse Answer(const std::string& path, const std::string& site = "",
                       const std::string& method = "GET", const std::string& query = "") {
    THttpRequest request{method, path, query, {}};
    if (!site.empty()) request.Headers = {{"Sec-Fetch-Site", site}};
    return BuildPage(request, {FHasGuardian ? &FGuardian : nullptr,
                               [this] { FGuardian.Requests += "end "; }, FPort, &FGuard});
  }
  std::string Get(const std::string& path, const std::string& site = "") {
    const THttpResponse response = Answer(path, site);
    return response.Body + Joined(response.Tail);
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
  const TRequestGuard FGuard{{}, {}, "secret"};
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

TEST_F(StatusPagesTest, TellsProgramsWhatIsNotWell) {
  TWatchdogReading& seen = FGuardian.Now.Watchdog;
  const auto expect = [&](const std::string& text, std::optional<double> ageSec) {
    seen.CheckAgeSec = ageSec;
    const THttpResponse response = Answer("/healthz", "cross-site", "HEAD");
    EXPECT_EQ(response.Body + response.ContentType, text + "text/plain");
    EXPECT_EQ(response.Status, text == "ok" ? 200 : 503);
  };
  expect("round", {});
  expect("mutex,pipe,service", 120);
  seen.PipeOK = true;
  expect("mutex,service,round", 120.001);
  seen.MutexOK = seen.ServiceOK = true;
  expect("ok", 120);
  FGuardian.Throws = true;
  EXPECT_EQ(Answer("/healthz").Status, 503);
}

TEST_F(StatusPagesTest, AnswersShortPagesByteForByte) {
  const std::tuple<const char*, Matcher<std::string>, bool> cases[] = {
      {"/status.php", std::string("Guardian running and accessible via port 8900. "), false},
      {"/Status.php", kHead, false},
      {"/threadreport.php", StartsWith("Thread Report<br>-----------------<br>"), true},
      {"/vellumark_logs/missing.log", StartsWith(kHead + "EXCPTION: "), true},
      {"/status.json", StartsWith("{\"version\":\"1.50\""), false},
      {"/logfiles.php",
       kHead + "Log Files in Reverse Order<br><br>EXCPTION: open folder "
               "/no/such/&lt;folder&gt;: No such file or directory (errno 2)",
       true},
  };
  for (const auto& [path, text, mayBlock] : cases) {
    EXPECT_THAT(Get(path), text);
    const THttpResponse response = Answer(path, "cross-site");
    const bool isJson = std::string_view(path).ends_with("json");
    EXPECT_EQ(std::tuple(response.Status, response.ContentType),
              std::tuple(200, isJson ? "application/json" : "text/html"));
    EXPECT_EQ(PageMayBlock(RequestOf("GET", path)), mayBlock);
  }
  FPort.reset();
  EXPECT_EQ(Get("/status.php"), "Guardian running. ");
  Settings().LogDirectory.Set("");
  EXPECT_EQ(Get("/logfiles.php"), kHead + "Log Files in Reverse Order<br><br>");
}

TEST_F(StatusPagesTest, TellsProgramsEachNumberByItsName) {
  TWatchdogReading& seen = FGuardian.Now.Watchdog;
  seen.Pid = "\x1f\"\xff";
  seen.MutexOK = true;
  std::tie(seen.Pulse, seen.PulseAgeSec, seen.Rounds, seen.Restarts, seen.RestartAttempts,
           seen.MutexFailures, seen.PipeFailures, seen.UptimeSec) =
      std::tuple(4, 5.5, 6, 7, 8, 9, 10, 11);
  seen.Actions[3] = {12, 13.0625};
  TFakeClock clock;
  const auto history = std::make_shared<THistory>(clock);
  history->AddEvent(TEventKind::Stop, "\"");
  clock.Advance(milliseconds(1'000));
  history->AddEvent(TEventKind::Stop, "\"");
  history->AddEvent(TEventKind::Hold, "");
  FGuardian.Now.History = history;
  FGuardian.Now.GetPathsError = true;
  EXPECT_EQ(
      Get("/status.json"),
      "{\"version\":\"1.50\",\"build\":10,\"pid\":" + std::to_string(::getpid()) +
          R"(,"port":8900,"uptime_seconds":11.000,"checks":{"mutex":true,"pipe":false,)"
          R"("service":false,"age_seconds":null},"daemon":{"pid":"\u001f\"\ufffd",)"
          R"("path":"/opt/<b>/VellumarkCL","path_exists":true,"mutex_path":"/m&/mutex",)"
          R"("paths_received":false},"pulse":{"value":4,"age_seconds":5.500},"counters":)"
          R"({"rounds":6,"restarts":7,"restart_attempts":8,"mutex_failures":9,"pipe_failures":10},)"
          R"("actions":{"start":{"total":0,"last_age_seconds":null},"stop":{"total":0,)"
          R"("last_age_seconds":null},"terminate":{"total":0,"last_age_seconds":null},)"
          R"("kill":{"total":12,"last_age_seconds":13.062}},"hold":null,"events":[)"
          R"({"time":"2026-11-21T06:00:00Z","last_time":"2026-11-21T06:00:01Z","count":2,)"
          R"("kind":"stop","text":"\""},{"time":"2026-11-21T06:00:01Z",)"
          R"("last_time":"2026-11-21T06:00:01Z","count":1,"kind":"hold","text":""}]})"
          "\n");
  const std::regex unnamed("# [^\n]*\n|vellumark_guardian_|[{\"]|check=|action=");
  EXPECT_EQ(std::regex_replace(Get("/metrics"), unnamed, ""),
            "build_infoversion=1.50,build=10} 1\nuptime_seconds 11.000\ncheck_okmutex} 1\n"
            "check_okpipe} 0\ncheck_okservice} 0\nfailuresmutex} 9\nfailurespipe} 10\npulse 4\n"
            "pulse_age_seconds 5.500\nrounds_total 6\nrestarts_total 7\nrestart_attempts 8\n"
            "actions_totalstart} 0\nactions_totalstop} 0\nactions_totalterminate} 0\n"
            "actions_totalkill} 12\naction_age_secondskill} 13.062\nhold_seconds 0.000\n");
  seen.CheckAgeSec = seen.HoldLeftSec = 1.5;
  EXPECT_THAT(Get("/status.json"), AllOf(HasSubstr("\"age_seconds\":1.500},\"daemon"),
                                         HasSubstr("\"hold\":1.500,\"events")));
  EXPECT_THAT(Get("/metrics"), HasSubstr("check_age_seconds 1.500\n"));
}

TEST_F(StatusPagesTest, AnswersOpenMetricsToThoseAloneWhoTakeIt) {
  const std::pair<const char*, bool> cases[] = {
      {"text/plain;version=0.0.4, application/openmetrics-text-2, application/*", false},
      {"application/openmetrics-text; q=0.000, */*", false},
      {"application/openmetrics-text", true},
      {"text/html,\tApplication/OpenMetrics-Text;version=1.0.0 ; q=0.001", true},
      {"application/openmetrics-text;Q=0,application/openmetrics-text;version=0.0.1", true}};
  for (const auto& [accept, isOpen] : cases) {
    const THttpRequest request{"GET", "/metrics", "", {{"Accept", accept}}};
    const THttpResponse response = BuildPage(request, {&FGuardian, {}, FPort, &FGuard});
    EXPECT_THAT(response.Body, HasSubstr(isOpen ? " vellumark_guardian_restarts counter\n"
                                                : " vellumark_guardian_restarts_total counter\n"));
    EXPECT_EQ(response.Body.ends_with("# EOF\n"), isOpen) << accept;
    EXPECT_EQ(response.ContentType,
              isOpen ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
                     : "text/plain; version=0.0.4; charset=utf-8");
  }
}

TEST_F(StatusPagesTest, AsksOnceMoreBeforeADeedWhichItLeavesToTheGuardianAndDoesForNobodyElse) {
  const std::tuple<std::string, const char*, const char*> deeds[] = {
      {"startdaemon.php", "start ", "VellumarkCL will be started"},
      {"stopdaemon.php", "stop ", "VellumarkCL will be asked to stop."},
      {"terminatedaemon.php", "terminate ", "STOP signal will be sent to VellumarkCL"},
      {"killdaemon.php", "kill ", "KILL signal will be sent to VellumarkCL"},
      {"terminateguardian.php", "end ", "Guardian stopped."}};
  std::string requests;
  for (const auto& [page, deed, answer] : deeds) {
    const std::string path = "/" + page;
    EXPECT_EQ(Answer(path, "same-origin").CacheControl, "no-cache");
    EXPECT_EQ(FGuardian.Requests, requests += deed);
    EXPECT_EQ(Answer(path, "", "HEAD").Body, answer);
    EXPECT_EQ(Answer(path, "cross-site").Status, 403);
    EXPECT_EQ(Get(path, "cross-site"), "Refused: the request comes from another site.");
    EXPECT_THAT(Answer("/confirm.html", "", "GET", page).Body,
                HasSubstr("<a href=\"" + page + "\">Yes</a></li><li><a href=\"overview.html\">"));
    EXPECT_EQ(FGuardian.Requests, requests);
  }
  for (const char* const query : {"", "status.php", "killdaemon.php&x", "//elsewhere"}) {
    EXPECT_EQ(Answer("/confirm.html", "", "GET", query).Status, 400);
  }
  FHasGuardian = false;
  EXPECT_EQ(Get("/killdaemon.php") + Get("/hold.html"),
            "Guardian already freedGuardian already freed");
  EXPECT_EQ(Get("/terminateguardian.php"), "Guardian stopped.");
  EXPECT_EQ(FGuardian.Requests, requests + "end ");
}

TEST_F(StatusPagesTest, BeginsAHoldOfAsManyMinutesAsOneNumberSays) {
  const std::map<std::string, std::string> deeds = {
      {"", "hold 60 "},    {"minutes=1", "hold 1 "}, {"minutes=1440", "hold 1440 "},
      {"minutes=", ""},    {"minutes=0", ""},        {"minutes=1441", ""},
      {"minutes=-1", ""},  {"minutes=+5", ""},       {"minutes=5 ", ""},
      {"minutes=5m", ""},  {"minutes=%35", ""},      {"minutes=5&minutes=6", ""},
      {"minutes=5&x", ""}, {"hours=5", ""},          {"minutes=99999999999999999999", ""}};
  for (const auto& [query, deed] : deeds) {
    SCOPED_TRACE(query);
    FGuardian.Requests.clear();
    const THttpResponse answer = Answer("/hold.html", "", "GET", query);
    EXPECT_EQ(FGuardian.Requests, deed);
    EXPECT_EQ(answer.Status, deed.empty() ? 400 : 200);
    EXPECT_EQ(answer.Body.find("from 1 to 1440") != std::string::npos, deed.empty());
  }
}

// Each sentence of the lamp, and nothing from outside as markup.
TEST_F(StatusPagesTest, ShowsInTheOverviewHowItIs) {
  TFakeClock clock;
  const auto history = std::make_shared<THistory>(clock);
  history->AddRound({true, false, true, 0});
  history->AddEvent(TEventKind::Kill, "<script>");
  clock.Advance(milliseconds(30'000));
  history->AddEvent(TEventKind::Kill, "<script>");
  FGuardian.Now.History = history;
  TWatchdogReading& seen = FGuardian.Now.Watchdog;
  for (const std::string query : {"", "still"}) {
    const std::string page = Answer("/overview.html", "", "GET", query).Body;
    EXPECT_EQ(Contains(page, "http-equiv=\"refresh\""), query.empty());
  }
  seen.Pid = "<script>";
  seen.Next = "<script>";
  TLogList logs{"<script>", {{3'600'000'000'000, "<script>.log", 1}}};
  const auto shows = [&](const std::string& text) {
    const std::string page = OverviewPage(FGuardian.Now, logs, TRefresh::Itself, clock);
    EXPECT_EQ(page.find("<script"), std::string::npos);
    return page.find(text) != std::string::npos;
  };
  EXPECT_TRUE(shows(">Not looked at yet<"));
  seen.CheckAgeSec = 120;
  EXPECT_TRUE(shows(">Not well: mutex, pipe, service<"));
  EXPECT_TRUE(shows("At least since 06:00:00"));
  EXPECT_TRUE(shows("</a></td><td>1 Bytes</td><td>01-01 01:00</td>"));
  EXPECT_TRUE(shows(">&lt;script&gt; <span class=\"soft\">(2 times, last at 06:00:30)") &&
              shows("process &lt;script&gt;"));
  EXPECT_TRUE(shows("Pipe: failed for 60 s, not known for 23 h 59 min"));
  EXPECT_TRUE(shows("<use href=\"#a3\" x=\"99.65%\" y=\"42\"/>")) << "the kill";
  EXPECT_TRUE(shows("<span>06:00</span><span>12:00</span><span>18:00</span><span>00:00</span>"));
  EXPECT_FALSE(shows("The log folder does not answer."));
  logs.StandsStill = true;
  EXPECT_TRUE(shows("The log folder does not answer."));
  seen.MutexOK = seen.PipeOK = seen.ServiceOK = true;
  EXPECT_TRUE(shows(">All is well<") && shows("</b> &lt;script&gt;</p>"));
  for (const auto& [seconds, until] :
       {std::pair(90, "21 06:02:00 (90 s)"), std::pair(120, "21 06:02:30 (2 min)"),
        std::pair(7'200, "21 08:00:30 (2 h 0 min)"), std::pair(172'800, "23 06:00:30 (2 days)")}) {
    seen.HoldLeftSec = seconds;
    EXPECT_TRUE(shows(std::string("<b>On hold</b> until 2026-11-") + until));
  }
  seen.CheckAgeSec = 121;
  seen.PipeOK = false;
  EXPECT_TRUE(shows(">The Guardian itself stands still<") && shows("&#10006; failed</td><td>the"));
  clock.Advance(milliseconds(60'000));
  EXPECT_TRUE(shows("not known for 23 h 58 min")) << "the look of this minute may be to come";
  EXPECT_TRUE(shows("At least since 06:00:00"));
  EXPECT_FALSE(shows("class=\"good\"/>")) << "a span with a gap";
  for (int minute = 0; minute < 1'440; ++minute) {
    history->AddRound({minute != 0, true, true, 0});
    history->AddEvent(TEventKind::Info, std::to_string(minute));
    clock.Advance(milliseconds(60'000));
  }
  seen.CheckAgeSec = 0;
  seen.PipeOK = true;
  EXPECT_TRUE(shows("Mutex: never failed\"") && shows("Since 11-21 06:02"));
  EXPECT_TRUE(shows("<td>1420<") && !shows("<td>1419<")) << "the last 20";
  FHasGuardian = false;
  EXPECT_THAT(Get("/overview.html"), HasSubstr("<p>The Guardian is ending.</p>"));
}

TEST_F(StatusPagesTest, ShowsTheMainPageWithEverythingFromOutsideEscaped) {
  const auto page = [this](const char* path = "/") {
    return std::regex_replace(Get(path), std::regex("Memory: [0-9.]+ [A-Za-z]+"), "Memory: n");
  };
  const std::string daemon =
      "<b>Status at <i></b><br><br>Daemon Path: /opt/&lt;b&gt;/VellumarkCL, Exists: Y<br>Mutex "
      "Path: /m&amp;/mutex<br>Running as user ID: " +
      std::to_string(::getuid()) + "<br><br>";
  const std::string paths = "VellumarkCL Temp Path: /t&amp;<br>";
  const std::string list =
      "Process List (ps) as of 2026-11-21 06:00:00:<br><br>root 1 "
      "&lt;x&gt;<br><br>&quot;2&quot;<br><br><br>";
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
  EXPECT_EQ(Answer("/").Tail.at(3), FGuardian.Now.DetailedLog.at(0));  // Not a copy.

  FGuardian.Now.ProcessList = MakeText("");
  FGuardian.Now.ProcessListTime = 0;
  FGuardian.Now.GotPaths = FGuardian.Now.DaemonPathExists = false;
  expected = ReplaceAll(expected, list, "");
  const std::string inactive = paths + "Inactive: GotPaths=N, GetPathsError=N<br><br>";
  EXPECT_EQ(page(), ReplaceAll(ReplaceAll(expected, "Exists: Y", "Exists: N"), paths, inactive));
  FGuardian.Now.GotPaths = FGuardian.Now.GetPathsError = true;
  EXPECT_THAT(page(), HasSubstr("Inactive: GotPaths=Y, GetPathsError=Y<br>"));
  FHasGuardian = false;
  for (const auto& part : {daemon, paths, logs}) expected = ReplaceAll(expected, part, "");
  EXPECT_EQ(page(), expected);
}

// Two at a time were written in the same nanosecond.
TEST_F(StatusPagesTest, ListsLogFilesNewestFirstByALinkThatLeadsToIt) {
  std::filesystem::create_directories(FFolder.Path("logs/folder.log"));
  std::filesystem::create_symlink("logs", FFolder.Path("linked"));
  Settings().LogDirectory.Set(FFolder.Path("linked"));
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
  ASSERT_EQ(::mkfifo(FFolder.Path("logs/pipe.log").c_str(), 0600), 0);
  EXPECT_THAT(Get("/vellumark_logs/pipe.log"), HasSubstr("Not a file of the log folder"));
  EXPECT_THAT(Get(std::string("/vellumark_logs/plain.log\0", 26)), HasSubstr("No such log file"));
  std::filesystem::create_symlink("folder.log/deep.log", FFolder.Path("logs/inside.log"));
  FFolder.Write("logs/folder.log/deep.log", "deep");
  EXPECT_EQ(Streamed("/vellumark_logs/inside.log"), "deep");
  const TLogList list = ListLogFiles(FFolder.Path("logs"));
  ASSERT_EQ(list.Files.size(), 12U);
  EXPECT_EQ(list.Files[0].Name + list.Files[11].Name, "inside.log" + names[4]);
  // A lease of another program would hold an opening that blocks for 45 seconds.
  const auto before = ::signal(SIGIO, SIG_IGN);
  const TFileDescriptor file(::open(FFolder.Path("logs/a+b.log").c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::fcntl(file.Get(), F_SETLEASE, F_WRLCK), 0);
  EXPECT_THAT(Get("/vellumark_logs/a+b.log"), HasSubstr("EXCPTION: open "));
  ::signal(SIGIO, before);
}

TEST_F(StatusPagesTest, LooksForLogsForTheOverviewAloneAndNotForEach) {
  Settings().LogDirectory.Set(FFolder.Path());
  const TLogFolder logs;
  const TFileDescriptor watch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  ASSERT_GE(::inotify_add_watch(watch.Get(), FFolder.Path().c_str(), IN_OPEN), 0);
  const auto looks = [&](const char* page) {
    (void)BuildPage(RequestOf("GET", page), {&FGuardian, {}, FPort, &FGuard, &logs});
    char events[4096];
    return ::read(watch.Get(), events, sizeof(events)) > 0;
  };
  EXPECT_FALSE(looks("/hold.html") || looks("/confirm.html") || looks("/status.json"));
  EXPECT_TRUE(Eventually([&] { return looks("/overview.html"); }));
  EXPECT_TRUE(Eventually([&] { return !looks("/overview.html"); }));
}

constexpr std::size_t kLimit = 131'072;

class ActivityLogTest : public testing::Test {
 protected:
  std::string Entry(const std::string& text) const {
    return "<br>" + DateTimeToStr(FClock.Now()) + text;
  }

  TFakeClock FClock;
  std::vector<std::string> FSystemLog;
  TActivityLog FLog{
      [this](std::string_view message, TSystemLogKind kind) {
        FSystemLog.push_back(std::to_string(static_cast<int>(kind)) + " " + std::string(message));
      },
      FClock};
};

TEST_F(ActivityLogTest, WritesEachKindInItsForm) {
  TDateTime errorAt = 0, warningAt = 0;
  FLog.AddErrorEntry(1, 16, "bad", errorAt);
  FLog.AddWarningEntry(5, 2, "odd", warningAt);
  FLog.AddInfoEntry(1, 16, "fine <&>");
  FLog.AddDetailEntry("<i>detail");
  const std::string entries =
      Entry("  ERROR: bad") + Entry("  WARNING: odd") + Entry("  INFO: fine &lt;&amp;&gt;");
  EXPECT_EQ(Joined(FLog.ShortLog()), entries);
  EXPECT_EQ(Joined(FLog.DetailedLog()), entries + "<br><i>detail");
  // Errors and warnings once in ten minutes of steady time, the rest always.
  FClock.SetWall(FClock.Now() + 1);
  FClock.Advance(milliseconds(600'000));
  FLog.AddErrorEntry(1, 16, "again", errorAt);
  FLog.AddInfoEntry(1, 16, "again");
  FClock.Advance(milliseconds(1));
  FLog.AddWarningEntry(5, 2, "more", errorAt);
  FLog.AddErrorEntry(1, 16, "no more", errorAt);
  FLog.AddErrorEntry(1, 16, "other", warningAt);
  EXPECT_THAT(FSystemLog,
              ElementsAre("1 bad", "2 odd", "4 fine <&>", "4 again", "2 more", "1 other"));
}

// Short entries, entries that end below, at and above the limit, and details with many breaks.
TEST_F(ActivityLogTest, DropsWholeEntriesFromTheStart) {
  std::mt19937 random(20'261'121);  // NOLINT(cert-msc51-cpp): the same steps in each run
  std::string shortLog, detailedLog;
  const auto add = [](std::string& log, const std::string& entry) {
    log += entry;
    while (log.size() > kLimit) {
      const std::size_t entryEnd = log.find("<br>");
      log.erase(0, entryEnd == std::string::npos ? 3 : entryEnd + 4);
    }
  };
  for (int step = 0; step < 400; ++step) {
    std::string text(random() % 3 == 0 ? random() % 9000 : random() % 30, 'x');
    const std::size_t used = detailedLog.size() + 4;
    if (random() % 8 == 0 && used + 1 < kLimit) text.assign(kLimit - used - 1 + random() % 3, 'y');
    if (random() % 40 == 0) text.assign(kLimit - 10 + random() % 20, 'z');
    if (random() % 4 == 0) text.insert(text.size() / 2, "<br><br>");
    if (random() % 2 == 0) {
      FLog.AddDetailEntry(text);
      add(detailedLog, "<br>" + text);
    } else {
      FLog.AddInfoEntry(1, 1, text);
      for (auto* log : {&shortLog, &detailedLog}) add(*log, Entry("  INFO: ") + HtmlEscape(text));
    }
    ASSERT_TRUE(Joined(FLog.ShortLog()) == shortLog && Joined(FLog.DetailedLog()) == detailedLog)
        << step;
  }
}

TEST_F(ActivityLogTest, LosesNoEntryOfSeveralThreads) {
  TCrew(2, [&](int) {
    for (int i = 0; i < 4000; ++i) FLog.AddDetailEntry("x");
  }).Join();
  EXPECT_EQ(Joined(FLog.DetailedLog()).size(), 2 * 4000 * 5);
}

// What contains another entry is no failure, and what fails is told once, however often it is
// tried. Each server begins while connections of the one before still fade out.
TEST(WebStatusServerTest, ListensWhereTheSettingSaysOnTheFirstFreePortFrom8900To8000) {
  constexpr const char* kVariable = "VELLUMARK_GUARDIAN_LISTEN";
  constexpr const char* kWrong =
      "VELLUMARK_GUARDIAN_LISTEN: \"x\" is no address; listening on all addresses\n";
  const std::string absent = ": Cannot assign requested address (errno 99)\n";
  const std::tuple<const char*, std::uint16_t, bool, bool, std::string, std::string> cases[] = {
      {"", 8000, true, true, "", ""},
      {"", 7999, false, false, "", "Listen on port 8000: Address already in use (errno 98)"},
      {"127.0.0.1,LocalHost, localhost", 8900, true, true, "", ""},
      {"127.0.0.1,0.0.0.0", 8900, true, false, "", ""},
      {"::1,::", 8900, false, true, "", ""},
      {"127.0.0.1,x", 8900, true, true, kWrong, ""},
      {"203.0.113.9,127.0.0.1", 8898, true, false, "Listen on 203.0.113.9" + absent, ""},
      {"fe80::1%lo", 8900, false, false, "Listen on fe80::1%lo" + absent,
       "None of the addresses can be listened on"},
  };
  for (const auto& [setting, number, is4, is6, lines, failure] : cases) {
    SCOPED_TRACE(setting);
    std::vector<TFileDescriptor> holders;
    for (std::uint16_t at = 8900; at > number; --at) holders.push_back(ListenOnLoopback(at));
    const std::string port = std::to_string(number);
    ::setenv(kVariable, setting, 1);
    testing::internal::CaptureStdout();
    TWebStatusServer server({});
    server.StartServer();
    EXPECT_NE(server.TryToStart(), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              lines + "Web Status Server " +
                  (failure.empty() ? "Active on Port " + port : "Cannot Start: ") + failure + "\n");
    const std::string text = "Guardian running and accessible via port " + port + ". ";
    EXPECT_EQ(Page("status.php", number, "127.0.0.1"), is4 ? text : "");
    EXPECT_EQ(Page("status.php", number, "[::1]"), is6 ? text : "");
  }
  ::unsetenv(kVariable);
}

TEST(WebStatusServerTest, MakesAThreadReportInAnotherThreadThanItsOwn) {
  KZCP::Init();
  const TAtEnd fini([] { KZCP::Fini(); });
  TWebStatusServer server({});
  server.StartServer();
  TRawClient client(server.Port());
  EXPECT_TRUE(Contains(client.Get("/").Head, "\r\nSet-Cookie: vellumark_guardian="));
  EXPECT_THAT(client.Get("/threadreport.php").Body, HasSubstr("HTTPServer:Wait"));
}

}  // namespace
}  // namespace guardian
