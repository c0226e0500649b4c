#include "webstatus/StatusPages.h"

#include <malloc.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <memory>
#include <utility>

#include "common/Exceptions.h"
#include "common/NeverDestroyed.h"
#include "common/Settings.h"
#include "common/Texts.h"
#include "diagnostics/KZCheckpoints.h"
#include "webstatus/HealthProblems.h"
#include "webstatus/LogDownloads.h"
#include "webstatus/MachinePages.h"
#include "webstatus/OverviewPage.h"

namespace guardian {
namespace {

constexpr std::string_view kTitle = "Vellumark Guardian 1.50, Build 10";
constexpr std::string_view kBreak = "<br>";
constexpr std::string_view kLogListPage = "logfiles.php";
constexpr std::string_view kThreadReportPage = "threadreport.php";

// Escaped, with a break at every line feed.
std::string EscapedLines(std::string_view text) {
  return ReplaceAll(HtmlEscape(text), "\n", kBreak);
}

std::string DaemonBlock(const TGuardianStatus& status) {
  return "<b>" + *status.StatusText + "</b><br><br>" +
         "Daemon Path: " + HtmlEscape(status.DaemonPath) +
         ", Exists: " + YesNo(status.DaemonPathExists) + "<br>" +
         "Mutex Path: " + HtmlEscape(status.MutexPath) + "<br>" +
         "Running as user ID: " + std::to_string(::getuid()) + "<br><br>";
}

std::string CommandLineText() {
  std::string text;
  for (const std::string& argument : Settings().CommandLine) {
    text += HtmlEscape(QuoteArgument(argument)) + " ";
  }
  return text;
}

std::string MemoryText() {
  const struct mallinfo2 heap = ::mallinfo2();
  return "Allocated Memory: " + FormatByteSize(heap.arena + heap.hblkhd) +
         ", Used Memory: " + FormatByteSize(heap.uordblks + heap.hblkhd);
}

std::string DaemonPathsBlock(const TGuardianStatus& status) {
  std::string text = "VellumarkCL Temp Path: " + HtmlEscape(status.DaemonTempPath) + "<br>";
  if (!status.GotPaths || status.GetPathsError) {
    text += std::string("Inactive: GotPaths=") + YesNo(status.GotPaths) +
            ", GetPathsError=" + YesNo(status.GetPathsError) + "<br><br>";
  }
  return text;
}

std::string ProcessBlock(const TGuardianStatus& status) {
  if (status.ProcessList->empty() && !(status.ProcessListTime > 0)) return {};
  const std::string block = "Process List (ps) as of " + DateTimeToStr(status.ProcessListTime) +
                            ":<br><br>" + EscapedLines(*status.ProcessList) + "<br><br><br>";
  return ReplaceAll(block, "\r", kBreak);
}

// The logs are far longer than the rest of the page, so they are sent without a copy.
void AppendLogs(const TGuardianStatus& status, THttpResponse& response) {
  response.Body += "<br><hr><br>Guardian Activity Log:<br><br>";
  response.Tail = status.ActivityLog;
  response.Tail.push_back(
      MakeText("<br><br><hr><br>Initial output: " + EscapedLines(*status.InitialOutput) +
               "<br><br><hr><br>Detailed Activity Log:<br><br>"));
  response.Tail.insert(response.Tail.end(), status.DetailedLog.begin(), status.DetailedLog.end());
  response.Tail.push_back(MakeText("<br><br><br>"));
}

constexpr std::string_view kLinks =
    "<a HREF=\"logfiles.php\">Click here to see the log files</a>.<br><br>"
    "<a HREF=\"threadreport.php\">Click here to see the thread report</a>.<br><br>"
    "<br>"
    "<a HREF=\"startdaemon.php\">Click here to start the VellumarkCL daemon</a>.<br><br>"
    "<a HREF=\"stopdaemon.php\">Click here to stop the VellumarkCL daemon gracefully</a>.<br><br>"
    "<a HREF=\"terminatedaemon.php\">Click here to send a STOP signal to the VellumarkCL "
    "daemon</a>.<br><br>"
    "<a HREF=\"killdaemon.php\">Click here to kill the VellumarkCL daemon</a>.<br><br>"
    "<a HREF=\"terminateguardian.php\">Click here to terminate the Guardian process</a>.<br><br>";

std::optional<TGuardianStatus> StatusOf(const TPageSources& sources) {
  if (sources.Guardian == nullptr) return std::nullopt;
  return sources.Guardian->Status();
}

void BuildMainPage(const TPageSources& sources, THttpResponse& response) {
  std::string& page = response.Body;
  const std::optional<TGuardianStatus> status = StatusOf(sources);
  if (status) page += DaemonBlock(*status);
  page +=
      "<table style=\"width:1000px\"><tr><th style=\"width:1000px;text-align:left\">Additional "
      "Information</th></tr></table><br>";
  page += "Temp Path: " + HtmlEscape(*Settings().TempDirectory.Get()) + "<br>";
  page += "Command Line: " + CommandLineText() + "<br><br>" + MemoryText() + "<br><br>";
  if (status) page += DaemonPathsBlock(*status);
  page += "Log Path: " + HtmlEscape(*Settings().LogDirectory.Get()) + "<br><br>";
  if (status) page += ProcessBlock(*status);
  page += kLinks;
  if (status) AppendLogs(*status, response);
}

// A page that requests an action.
struct TControlPage {
  std::string_view Name;
  std::string_view Answer;
  void (TGuardianControl::*Request)();  // Null for the page that ends the Guardian.
};

constexpr std::array<TControlPage, 6> kControlPages = {{
    {"startdaemon.php", "VellumarkCL will be started", &TGuardianControl::RequestStart},
    {"stopdaemon.php", "VellumarkCL will be asked to stop.", &TGuardianControl::RequestStop},
    {"terminatedaemon.php", "STOP signal will be sent to VellumarkCL",
     &TGuardianControl::RequestTerminate},
    {"killdaemon.php", "KILL signal will be sent to VellumarkCL", &TGuardianControl::RequestKill},
    {"terminateguardian.php", "Guardian stopped.", nullptr},
    {"release.html", "No hold any more: VellumarkCL is started and ended as needed.",
     &TGuardianControl::Release},
}};

const TControlPage* FindControlPage(std::string_view name) {
  for (const TControlPage& page : kControlPages) {
    if (page.Name == name) return &page;
  }
  return nullptr;
}

// Whether the request must not act; the response then says why.
bool IsRefused(const THttpRequest& request, const TPageSources& sources, THttpResponse& response) {
  if (sources.Guard == nullptr) return false;
  std::optional<THttpResponse> refusal = sources.Guard->RefuseAction(request);
  if (refusal) response = std::move(*refusal);
  return refusal.has_value();
}

void BuildControlPage(const TControlPage& page, const THttpRequest& request,
                      const TPageSources& sources, THttpResponse& response) {
  if (IsRefused(request, sources, response)) return;
  // Going back to the answer in a browser's history shows it again and does not ask again.
  response.CacheControl = "no-cache";
  if (page.Request != nullptr && sources.Guardian == nullptr) {
    response.Body = "Guardian already freed";
    return;
  }
  response.Body = page.Name.ends_with(".html") ? DonePage(page.Answer) : std::string(page.Answer);
  // HEAD requests the head of the answer only, so it must not act.
  if (request.Method != "GET") return;
  if (page.Request != nullptr) {
    (sources.Guardian->*page.Request)();
  } else {
    sources.TerminateGuardian();
  }
}

void BuildHealthPage(const std::optional<TGuardianStatus>& status, THttpResponse& response) {
  const std::string problems = HealthProblems(status ? status->Watchdog : TWatchdogReading{});
  response.Status = problems.empty() ? 200 : 503;
  response.ContentType = "text/plain";
  response.Body = problems.empty() ? "ok" : problems;
}

// The length of a hold as the query asks for it, an hour by default; nothing for a wrong query.
std::optional<std::chrono::minutes> HoldLength(std::string_view query) {
  constexpr std::string_view kName = "minutes=";
  constexpr int kMostMinutes = 1440;
  int minutes = 60;
  if (!query.empty()) {
    if (!query.starts_with(kName)) return std::nullopt;
    query.remove_prefix(kName.size());
    const char* const end = query.data() + query.size();
    const auto read = std::from_chars(query.data(), end, minutes);
    if (read.ec != std::errc() || read.ptr != end) return std::nullopt;
  }
  if (minutes < 1 || minutes > kMostMinutes) return std::nullopt;
  return std::chrono::minutes(minutes);
}

void BuildHoldPage(const THttpRequest& request, const TPageSources& sources,
                   THttpResponse& response) {
  if (IsRefused(request, sources, response)) return;
  const auto length = HoldLength(request.Query);
  if (!length) {
    response = PlainResponse(400);
    response.Body =
        "No hold was begun: the page takes one number from 1 to 1440, as hold.html?minutes=60\n";
    return;
  }
  response.CacheControl = "no-cache";
  if (sources.Guardian == nullptr) {
    response.Body = "Guardian already freed";
    return;
  }
  response.Body = DonePage("On hold for " + std::to_string(length->count()) +
                           " minutes: VellumarkCL is watched, but neither started nor ended.");
  if (request.Method == "GET") sources.Guardian->Hold(*length);
}

void BuildConfirmPage(std::string_view controlPage, THttpResponse& response) {
  std::string page = ConfirmPage(controlPage);
  if (page.empty()) {
    response = PlainResponse(400);
  } else {
    response.Body = std::move(page);
  }
}

void BuildPageForPhones(std::string_view name, const THttpRequest& request,
                        const TPageSources& sources, THttpResponse& response) {
  if (name == "overview.html") {
    const TLogList logs = sources.Logs == nullptr ? TLogList{} : sources.Logs->Seen();
    const TRefresh refresh = request.Query == "still" ? TRefresh::Never : TRefresh::Itself;
    response.Body = OverviewPage(StatusOf(sources), logs, refresh, SystemClock());
  } else if (name == "confirm.html") {
    BuildConfirmPage(request.Query, response);
  } else if (name == "hold.html") {
    BuildHoldPage(request, sources, response);
  }
}

void BuildPageForPrograms(std::string_view name, const THttpRequest& request,
                          const TPageSources& sources, THttpResponse& response) {
  std::string& page = response.Body;
  if (name == "status.json") {
    page = StatusJson(StatusOf(sources), sources.Port);
    response.ContentType = kJsonType;
  } else if (name == "metrics") {
    const bool isOpen = request.Accepts("application/openmetrics-text");
    page = Metrics(StatusOf(sources), isOpen ? TMetricsFormat::OpenMetrics : TMetricsFormat::Text);
    response.ContentType = isOpen ? kOpenMetricsType : kMetricsTextType;
  } else if (name == "healthz") {
    response.Status = 503;  // Whatever fails from here on.
    BuildHealthPage(StatusOf(sources), response);
  }
}

void BuildPageGuarded(std::string_view name, const THttpRequest& request,
                      const TPageSources& sources, THttpResponse& response) {
  std::string& page = response.Body;
  if (name.empty()) {
    BuildMainPage(sources, response);
  } else if (name == kLogListPage) {
    page += "Log Files in Reverse Order<br><br>";
    page += LogFileLinks(Settings().LogDirectory.Copy());
  } else if (name.starts_with(kLogLinkFolder)) {
    OpenLogFile(name.substr(kLogLinkFolder.size()), Settings().LogDirectory.Copy(), response);
  } else if (name == kThreadReportPage) {
    page = EscapedLines(KZCP::ThreadReport(KZCP::TReportHeader::With));
  } else if (const TControlPage* control = FindControlPage(name)) {
    BuildControlPage(*control, request, sources, response);
  } else if (name.ends_with(".html")) {
    BuildPageForPhones(name, request, sources, response);
  } else if (name == "status.php") {
    page = sources.Port
               ? "Guardian running and accessible via port " + std::to_string(*sources.Port) + ". "
               : "Guardian running. ";
  } else {
    BuildPageForPrograms(name, request, sources, response);
  }
}

// The document path without its first character; empty for "", "/" and "\".
std::string_view PageNameOf(std::string_view path) { return path.empty() ? path : path.substr(1); }

}  // namespace

bool PageMayBlock(const THttpRequest& request) {
  const std::string_view name = PageNameOf(request.Path);
  return name == kLogListPage || name == kThreadReportPage || name.starts_with(kLogLinkFolder);
}

THttpResponse BuildPage(const THttpRequest& request, const TPageSources& sources) {
  if (sources.Guard != nullptr) {
    if (auto refusal = sources.Guard->RefuseHost(request)) return std::move(*refusal);
  }
  static TNeverDestroyed<std::string> header(PageHeader(kTitle));
  THttpResponse response;
  response.Body = *header;
  try {
    BuildPageGuarded(PageNameOf(request.Path), request, sources, response);
  } catch (...) {
    // The misspelling is intended and stays.
    response.Body += "EXCPTION: " + HtmlEscape(CurrentExceptionMessage());
  }
  return response;
}

std::string PageHeader(std::string_view title) {
  std::string head = "<!DOCTYPE html><html><title>";
  head.append(title);
  head +=
      "</title><head><meta http-equiv=\"Content-Type\" content=\"text/html; charset=UTF-8\">"
      "<style>* { font-family: Arial, Helvetica, sans-serif; }table, th, td { border: 1px solid "
      "lightgray; border-collapse: collapse; }th { background-color: #e0e9f5; color: black; "
      "}tr:nth-child(even){background-color: #f2f2f2}</style></head><body><table "
      "style=\"width:1000px\"><tr><th style=\"width:1000px;text-align:left\">";
  head.append(title);
  head += "</th></tr></table><br>";
  return head;
}

}  // namespace guardian
