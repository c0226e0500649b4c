#include "webstatus/OverviewPage.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <initializer_list>
#include <vector>

#include "common/Environment.h"
#include "common/Texts.h"
#include "guardian/process/ProcessListing.h"
#include "webstatus/HealthProblems.h"

namespace guardian {
namespace {

constexpr std::string_view kStyle = R"(
:root{color-scheme:light dark;--page:#fff;--text:#1b1f24;--soft:#57606a;--line:#d0d7de;--box:#f6f8fa;
--good:#116329;--bad:#a40e26;--warn:#7d4e00;--link:#0550ae}
@media(prefers-color-scheme:dark){:root{--page:#0d1117;--text:#e6edf3;--soft:#9da7b3;--line:#30363d;
--box:#161b22;--good:#56d364;--bad:#ff7b72;--warn:#e3b341;--link:#79c0ff}}
*{box-sizing:border-box}
body{margin:0;background:var(--page);color:var(--text);font:16px/1.5 system-ui,sans-serif}
main{max-width:60rem;margin:0 auto;padding:0 1rem 2rem}
h1{font-size:1.25rem;margin:1rem 0 .5rem}h2{font-size:1.1rem;margin:1.75rem 0 .5rem}
a{color:var(--link);overflow-wrap:anywhere}
nav ul{list-style:none;display:flex;flex-wrap:wrap;gap:.5rem;margin:.5rem 0;padding:0}
nav a,td a{display:inline-flex;align-items:center;min-height:44px;min-width:44px}
nav a{padding:0 1rem;border:1px solid var(--soft);border-radius:.5rem;text-decoration:none}
.lamp{display:flex;gap:.75rem;align-items:center;margin:0;padding:.75rem 1rem;background:var(--box);
border-left:.5rem solid;border-radius:.25rem;font-size:1.25rem;font-weight:600}
.lamp b{font-size:2rem;line-height:1}
.lamp small{display:block;color:var(--text);font-size:1rem;font-weight:400}
.good{color:var(--good)}.bad{color:var(--bad)}.warn{color:var(--warn)}.soft{color:var(--soft)}
table{width:100%;border-collapse:collapse}
th,td{padding:.375rem .75rem .375rem 0;border-bottom:1px solid var(--line);text-align:left;
vertical-align:baseline;overflow-wrap:anywhere}
th,.kind{font-weight:600}th,.kind,.time{white-space:nowrap}
figure{margin:0}
.strip{display:grid;grid-template-columns:6rem 1fr;gap:0 .75rem;align-items:center;margin:.25rem 0}
.strip small{grid-column:2;color:var(--soft)}
svg{display:block;width:100%;overflow:visible;background:var(--box);fill:currentColor}
.axis{display:flex;justify-content:space-between;color:var(--soft)}
@media(max-width:34rem){.time{white-space:normal;overflow-wrap:normal}.strip{grid-template-columns:1fr}.strip small{grid-column:1}
th,td{padding-right:.5rem}}
)";

// A page of the given title and main part; what stands in the head besides comes between.
std::string Page(std::string_view title, std::string_view head, std::string_view main) {
  std::string page =
      "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">";
  page.append(head).append("<title>").append(title).append("</title><style>").append(kStyle);
  page.append("</style></head><body><main>\n").append(main).append("</main></body></html>\n");
  return page;
}

std::string Link(std::string_view target, std::string_view text) {
  return std::string("<a href=\"").append(target).append("\">").append(text).append("</a>");
}

std::string Navigation(std::string_view label, const std::vector<std::string>& links) {
  std::string text = std::string("<nav aria-label=\"").append(label).append("\"><ul>");
  for (const std::string& link : links) text += "<li>" + link + "</li>";
  return text + "</ul></nav>\n";
}

// "40 s", "12 min", "5 h 3 min", "9 days".
std::string Duration(double seconds) {
  const auto whole = static_cast<std::int64_t>(std::max(seconds, 0.0));
  const std::int64_t minutes = whole / 60;
  if (whole < 120) return std::to_string(whole) + " s";
  if (minutes < 120) return std::to_string(minutes) + " min";
  if (minutes < 2'880) {
    return std::to_string(minutes / 60) + " h " + std::to_string(minutes % 60) + " min";
  }
  return std::to_string(minutes / 1440) + " days";
}

// The wall clock of one page, for times that are kept in UTC.
class TPageClock {
 public:
  explicit TPageClock(const TClock& clock)
      : FUtc(clock.UtcNow()),
        FAhead(clock.Now() - FUtc),
        FToday(IsoDateTimeToStr(FUtc + FAhead).substr(0, 10)) {}

  // "14:05:09" of today, else "11-21 14:05".
  [[nodiscard]] std::string Local(std::int64_t unixSec) const {
    const std::string text = IsoDateTimeToStr(FromUnixSeconds(unixSec) + FAhead);
    return text.starts_with(FToday) ? text.substr(11, 8)
                                    : text.substr(5, 5) + " " + text.substr(11, 5);
  }
  [[nodiscard]] std::string HourAgo(double hours) const {
    return TimeOfDayToStr(FUtc + FAhead - hours / 24).substr(0, 5);
  }
  [[nodiscard]] std::string In(double seconds) const {
    return DateTimeToStr(FUtc + FAhead + seconds * kSecond);
  }
  [[nodiscard]] std::int64_t Minute() const { return UnixSeconds(FUtc) / 60; }

 private:
  const TDateTime FUtc;
  const TDateTime FAhead;
  const std::string FToday;
};

// Since when it has been as well or as unwell as now, to the minute; empty when nothing is known of
// this minute and the one before.
std::string Since(const THistoryRecord& history, bool well, const TPageClock& clock) {
  const std::int64_t now = clock.Minute();
  std::int64_t first = now;
  // The first look of this minute may be still to come.
  if (history.Find(first) == nullptr) --first;
  if (history.Find(first) == nullptr) return {};
  const auto isSame = [&](const TMinute* minute) {
    return minute != nullptr && (minute->Seen == TMinute::kLooked) == well;
  };
  while (isSame(history.Find(first)) && isSame(history.Find(first - 1))) --first;
  const bool known = history.Find(first - 1) != nullptr;
  return (known ? "Since " : "At least since ") + clock.Local(first * 60);
}

struct TLamp {
  const char* Class;
  const char* Sign;
  std::string Text;
};

TLamp LampOf(const TWatchdogReading& seen) {
  const std::string problems = HealthProblems(seen);
  if (!seen.CheckAgeSec) return {"soft", "?", "Not looked at yet"};
  if (!MakesItsRounds(seen)) return {"bad", "&#10006;", "The Guardian itself stands still"};
  if (problems.empty()) return {"good", "&#10004;", "All is well"};
  return {"bad", "&#10006;", "Not well: " + ReplaceAll(problems, ",", ", ")};
}

std::string LampBlock(const TLamp& lamp, const std::string& since, const std::string& next) {
  return std::string("<p class=\"lamp ") + lamp.Class +
         "\" role=\"status\"><b aria-hidden=\"true\">" + lamp.Sign + "</b><span>" + lamp.Text +
         "<small>" + since + "</small></span></p>\n" + "<p><b>What happens next:</b> " +
         HtmlEscape(next) + "</p>\n";
}

std::string NextOf(const TWatchdogReading& seen) {
  if (!seen.CheckAgeSec) return "The first look comes 10 seconds after the start.";
  return seen.HoldLeftSec ? "The Guardian looks, and does nothing until the hold ends." : seen.Next;
}

std::string HoldBlock(const TWatchdogReading& seen, const TPageClock& clock) {
  std::vector<std::string> links = {Link("hold.html?minutes=30", "Hold for 30 minutes"),
                                    Link("hold.html?minutes=120", "Hold for 2 hours"),
                                    Link("hold.html?minutes=480", "Hold for 8 hours")};
  std::string text =
      "<p>No hold. A hold keeps the Guardian from starting and ending the daemon.</p>";
  if (seen.HoldLeftSec) {
    text = "<p class=\"warn\"><b>On hold</b> until " + clock.In(*seen.HoldLeftSec) + " (" +
           Duration(*seen.HoldLeftSec) +
           "): the daemon is watched, but neither started nor ended.</p>";
    links.insert(links.begin(), Link("release.html", "Release the hold"));
  }
  return text + Navigation("Hold", links);
}

std::string TableHead(std::initializer_list<std::string_view> columns) {
  std::string text = "<table><thead><tr>";
  for (const std::string_view column : columns) {
    text.append("<th scope=\"col\">").append(column).append("</th>");
  }
  return text + "</tr></thead><tbody>\n";
}

std::string Row(std::string_view name, const std::string& cells) {
  return std::string("<tr><th scope=\"row\">").append(name).append("</th>") + cells + "</tr>";
}

std::string CheckRow(std::string_view name, bool ok, std::string_view meaning) {
  return Row(name, std::string(ok ? "<td class=\"good\">&#10004; well"
                                  : "<td class=\"bad\">&#10006; failed") +
                       "</td><td>" + std::string(meaning) + "</td>");
}

std::string ChecksBlock(const TWatchdogReading& seen) {
  const std::optional<double> age = ProcessAgeSec(seen.Pid);
  const std::string process = seen.Pid.empty() ? "no process"
                                               : "process " + HtmlEscape(seen.Pid) +
                                                     (age ? ", runs for " + Duration(*age) : "");
  const std::string looked = seen.CheckAgeSec ? Duration(*seen.CheckAgeSec) + " ago" : "not yet";
  return "<h2>Checks</h2>\n" + TableHead({"Check", "State", "Seen"}) +
         CheckRow("Service", seen.ServiceOK, process) +
         CheckRow("Mutex", seen.MutexOK,
                  seen.MutexOK ? "held by the scheduler" : "not held: no scheduler works") +
         CheckRow(
             "Pipe", seen.PipeOK,
             seen.PipeOK ? "the scheduler can be talked to" : "the scheduler cannot be talked to") +
         Row("Pulse", "<td>" + std::to_string(seen.Pulse) +
                          "</td><td>changed, or was not expected, " + Duration(seen.PulseAgeSec) +
                          " ago</td>") +
         Row("Last look", "<td colspan=\"2\">" + looked + "; the Guardian has been running for " +
                              Duration(seen.UptimeSec) + "</td>") +
         "</tbody></table>\n";
}

constexpr int kColumns = 288;
constexpr int kMinutesInColumn = 5;
constexpr int kDayMinutes = kColumns * kMinutesInColumn;

// Some minutes of the last day, of which the worst counts.
struct TColumn {
  std::uint8_t Seen = 0;
  std::uint8_t Actions = 0;
  bool HasGap = false;
};

struct TDay {
  std::array<TColumn, kColumns> Columns;
  std::array<int, TMinute::kLooked> FailedMinutes{};  // By the bit of the check.
  int UnknownMinutes = 0;
};

TDay DayOf(const THistoryRecord& history, std::int64_t now) {
  TDay day;
  for (int i = 0; i < kDayMinutes; ++i) {
    TColumn& column = day.Columns.at(static_cast<std::size_t>(i / kMinutesInColumn));
    const TMinute* const minute = history.Find(now - kDayMinutes + 1 + i);
    const bool looked = minute != nullptr && (minute->Seen & TMinute::kLooked) != 0;
    if (minute != nullptr) {
      column.Seen |= minute->Seen;
      column.Actions |= minute->Actions;
    }
    // The first look of the last minute may be still to come.
    if (!looked && i + 1 < kDayMinutes) {
      column.HasGap = true;
      ++day.UnknownMinutes;
    }
    for (const unsigned bit : {1U, 2U, 4U}) {
      if (looked && (minute->Seen & bit) != 0) ++day.FailedMinutes.at(bit);
    }
  }
  return day;
}

std::string Percent(int columns) { return FormatFixed(100.0 * columns / kColumns, 0, 2) + "%"; }

std::string Strip(std::string_view name, const std::string& words, int height,
                  const std::string& shapes) {
  return std::string("<div class=\"strip\"><b>").append(name) + "</b><svg role=\"img\" height=\"" +
         std::to_string(height) + "\" aria-label=\"" + std::string(name) + ": " + words + "\">" +
         shapes + "</svg><small>" + words + "</small></div>\n";
}

// A band: low where it was well, high where it failed, none where nothing is known.
std::string Bands(const TDay& day, std::uint8_t failedBit) {
  constexpr std::string_view kFailed = "y=\"0\" height=\"20\" class=\"bad\"";
  constexpr std::string_view kWell = "y=\"14\" height=\"6\" class=\"good\"";
  const auto stateOf = [&](int column) {
    const TColumn& seen = day.Columns.at(static_cast<std::size_t>(column));
    if ((seen.Seen & failedBit) != 0) return kFailed;
    return seen.HasGap || seen.Seen == 0 ? std::string_view() : kWell;
  };
  std::string bands;
  for (int begin = 0, end = 0; begin < kColumns; begin = end) {
    while (end < kColumns && stateOf(end) == stateOf(begin)) ++end;
    if (stateOf(begin).empty()) continue;
    bands += "<rect x=\"" + Percent(begin) + "\" width=\"" + Percent(end - begin) + "\" ";
    bands.append(stateOf(begin)).append("/>");
  }
  return bands;
}

std::string CheckStrip(std::string_view name, const TDay& day, std::uint8_t failedBit) {
  const int failed = day.FailedMinutes.at(failedBit);
  std::string words = failed == 0 ? "never failed" : "failed for " + Duration(failed * 60.0);
  if (day.UnknownMinutes > 0) words += ", not known for " + Duration(day.UnknownMinutes * 60.0);
  return Strip(name, words, 20, Bands(day, failedBit));
}

// Four lanes, from start to kill, each with a shape of its own.
std::string ActionStrip(const TDay& day) {
  constexpr int kLaneHeight = 14;
  constexpr std::array<const char*, kDaemonActions> kShapes = {
      "M0 2l5 9h-10z", "M-4 2h8v8h-8z", "M-5 2h10l-5 9z",
      "M-5 2h3l2 3 2-3h3l-3.5 5 3.5 5h-3l-2-3-2 3h-3l3.5-5z"};
  std::string shapes = "<defs>";
  for (std::size_t lane = 0; lane < kShapes.size(); ++lane) {
    shapes += "<path id=\"a" + std::to_string(lane) + "\" d=\"" + kShapes.at(lane) + "\"/>";
  }
  shapes += "</defs>";
  int marked = 0;
  for (int column = 0; column < kColumns; ++column) {
    const unsigned actions = day.Columns.at(static_cast<std::size_t>(column)).Actions;
    if (actions != 0) ++marked;
    for (int lane = 0; lane < static_cast<int>(kDaemonActions); ++lane) {
      if ((actions >> static_cast<unsigned>(lane) & 1U) == 0) continue;
      shapes += "<use href=\"#a" + std::to_string(lane) + "\" x=\"" + Percent(column) + "\" y=\"" +
                std::to_string(lane * kLaneHeight) + "\"/>";
    }
  }
  const std::string words = marked == 0 ? "none"
                                        : "in " + std::to_string(marked) +
                                              (marked == 1 ? " span" : " spans") + " of 5 minutes";
  return Strip("Actions", words, kLaneHeight * static_cast<int>(kDaemonActions), shapes);
}

std::string DayBlock(const THistoryRecord& history, const TPageClock& clock) {
  const TDay day = DayOf(history, clock.Minute());
  std::string axis = "<div class=\"strip\"><span></span><span class=\"axis\">";
  for (const int hours : {24, 18, 12, 6}) axis += "<span>" + clock.HourAgo(hours) + "</span>";
  return "<h2>The last 24 hours</h2>\n<figure>" +
         CheckStrip("Service", day, TMinute::kServiceFailed) +
         CheckStrip("Mutex", day, TMinute::kMutexFailed) +
         CheckStrip("Pipe", day, TMinute::kPipeFailed) + ActionStrip(day) + axis +
         "<span>now</span></span></div><figcaption class=\"soft\">A low band: well; a high one: "
         "failed; none: the Guardian did not look. &#9650; start, &#9632; stop, &#9660; terminate, "
         "&#10006; kill.</figcaption></figure>\n";
}

const char* ClassOf(TEventKind kind) {
  if (kind == TEventKind::Error) return "bad";
  if (kind == TEventKind::Info) return "soft";
  return kind == TEventKind::Warning || kind >= TEventKind::Hold ? "warn" : "act";
}

std::string EventsBlock(const THistoryRecord& history, const TPageClock& clock) {
  constexpr std::uint32_t kShown = 20;
  std::string rows;
  for (std::uint32_t back = 1; back <= std::min(history.EventCount, kShown); ++back) {
    const TEvent& event = history.Events.at(history.EventCount - back);
    rows += "<tr><td class=\"time\">" + clock.Local(event.FirstAt) + "</td><td class=\"kind " +
            ClassOf(event.Kind) + "\">";
    rows.append(NameOf(event.Kind)).append("</td><td>").append(HtmlEscape(event.Shown()));
    if (event.Count > 1) {
      rows += " <span class=\"soft\">(" + std::to_string(event.Count) + " times, last at " +
              clock.Local(event.LastAt) + ")</span>";
    }
    rows += "</td></tr>\n";
  }
  if (rows.empty()) return {};
  return "<h2>Last events</h2>\n" + TableHead({"Time", "Kind", "What"}) + rows +
         "</tbody></table>\n";
}

std::string LogsBlock(const TLogList& logs, const TPageClock& clock) {
  constexpr std::int64_t kNsInSecond = 1'000'000'000;
  const std::string problem =
      logs.StandsStill ? "The log folder does not answer." : HtmlEscape(logs.Problem);
  std::string text = "<h2>Log files</h2>\n";
  if (!problem.empty()) text += "<p class=\"bad\">&#10006; " + problem + "</p>\n";
  if (logs.Files.empty()) return problem.empty() ? "" : text;
  text += TableHead({"File", "Size", "Changed"});
  for (const TLogFile& file : logs.Files) {
    text += "<tr><td>" + LogFileLink(file.Name) + "</td><td>" + FormatByteSize(file.Size) +
            "</td><td>" + clock.Local(file.ModifiedNs / kNsInSecond) + "</td></tr>\n";
  }
  return text + "</tbody></table>\n";
}

struct TDeed {
  std::string_view Page;
  std::string_view Link;
  std::string_view Question;
};

constexpr std::array<TDeed, 5> kDeeds = {{
    {"startdaemon.php", "Start the daemon", "Start the VellumarkCL daemon?"},
    {"stopdaemon.php", "Stop it",
     "Ask the VellumarkCL daemon to stop? Without a hold it is started again."},
    {"terminatedaemon.php", "Terminate it",
     "Send the VellumarkCL daemon a STOP signal? Without a hold it is started again."},
    {"killdaemon.php", "Kill it",
     "Kill the VellumarkCL daemon? It cannot finish what it is doing. Without a hold it is started "
     "again."},
    {"terminateguardian.php", "End the Guardian",
     "End the Guardian? The daemon goes on, and nobody watches it."},
}};

std::string LinksBlock(TRefresh refresh) {
  std::vector<std::string> deeds;
  deeds.reserve(kDeeds.size());
  for (const TDeed& deed : kDeeds) {
    deeds.push_back(Link("confirm.html?" + std::string(deed.Page), deed.Link));
  }
  return "<h2>Control</h2>\n" + Navigation("Control", deeds) + "<h2>More</h2>\n" +
         Navigation("More", {refresh == TRefresh::Itself
                                 ? Link("overview.html?still", "Do not refresh this page")
                                 : Link("overview.html", "Refresh this page by itself"),
                             Link("/", "Main page"), Link("logfiles.php", "All log files"),
                             Link("threadreport.php", "Thread report")});
}

}  // namespace

std::string OverviewPage(const std::optional<TGuardianStatus>& status, const TLogList& logs,
                         TRefresh refresh, const TClock& clock) {
  const TPageClock now(clock);
  const std::string_view head =
      refresh == TRefresh::Itself ? "<meta http-equiv=\"refresh\" content=\"15\">" : "";
  const std::string heading = "<h1>Vellumark Guardian on " + HtmlEscape(HostName()) + "</h1>\n";
  if (!status || !status->History) {
    return Page("Vellumark Guardian", head, heading + "<p>The Guardian is ending.</p>");
  }
  const THistory::TPointer history = status->History->Get();
  const TWatchdogReading& seen = status->Watchdog;
  const TLamp lamp = LampOf(seen);
  const bool well = HealthProblems(seen).empty();
  return Page(lamp.Text + " - Vellumark Guardian", head,
              heading + LampBlock(lamp, Since(*history, well, now), NextOf(seen)) +
                  HoldBlock(seen, now) + ChecksBlock(seen) + DayBlock(*history, now) +
                  EventsBlock(*history, now) + LogsBlock(logs, now) + LinksBlock(refresh));
}

std::string ConfirmPage(std::string_view controlPage) {
  for (const TDeed& deed : kDeeds) {
    if (deed.Page != controlPage) continue;
    return Page(
        "Are you sure? - Vellumark Guardian", "",
        "<h1>Are you sure?</h1>\n<p>" + std::string(deed.Question) + "</p>\n" +
            Navigation("Answer", {Link(deed.Page, "Yes"), Link("overview.html", "No, go back")}));
  }
  return {};
}

std::string DonePage(std::string_view text) {
  return Page("Vellumark Guardian", "",
              "<h1>Vellumark Guardian</h1>\n<p>" + std::string(text) + "</p>\n" +
                  Navigation("Back", {Link("overview.html", "Overview")}));
}

}  // namespace guardian
