#include "webstatus/MachinePages.h"

#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <string_view>
#include <utility>

#include "common/Texts.h"

namespace guardian {
namespace {

constexpr std::array<const char*, kDaemonActions> kActionNames = {"start", "stop", "terminate",
                                                                  "kill"};

std::string JsonCharacter(std::string_view character) {
  if (character == "\"" || character == "\\") return "\\" + std::string(character);
  if (const auto code = static_cast<unsigned char>(character.front()); code < 0x20U) {
    char text[8];
    std::snprintf(text, sizeof(text), "\\u%04x", code);
    return text;
  }
  return std::string(character);
}

std::string JsonText(std::string_view text) {
  std::string json = "\"";
  while (!text.empty()) {
    const std::size_t length = Utf8Length(text);
    json += length == 0 ? "\\ufffd" : JsonCharacter(text.substr(0, length));
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return json + "\"";
}

std::string Seconds(double seconds) { return FormatFixed(seconds, 0, 3); }
std::string JsonSeconds(const std::optional<double>& seconds) {
  return seconds ? Seconds(*seconds) : "null";
}
const char* JsonBool(bool value) { return value ? "true" : "false"; }

// A JSON object whose values are JSON texts already.
class TJsonObject {
 public:
  TJsonObject& Add(std::string_view name, std::string_view value) {
    FText.append(FText.empty() ? "" : ",").append(JsonText(name)).append(":").append(value);
    return *this;
  }
  [[nodiscard]] std::string Text() const { return "{" + FText + "}"; }

 private:
  std::string FText;
};

std::string JsonChecks(const TWatchdogReading& seen) {
  return TJsonObject()
      .Add("mutex", JsonBool(seen.MutexOK))
      .Add("pipe", JsonBool(seen.PipeOK))
      .Add("service", JsonBool(seen.ServiceOK))
      .Add("age_seconds", JsonSeconds(seen.CheckAgeSec))
      .Text();
}

std::string JsonCounters(const TWatchdogReading& seen) {
  return TJsonObject()
      .Add("rounds", std::to_string(seen.Rounds))
      .Add("restarts", std::to_string(seen.Restarts))
      .Add("restart_attempts", std::to_string(seen.RestartAttempts))
      .Add("mutex_failures", std::to_string(seen.MutexFailures))
      .Add("pipe_failures", std::to_string(seen.PipeFailures))
      .Text();
}

std::string JsonActions(const TWatchdogReading& seen) {
  TJsonObject actions;
  for (std::size_t i = 0; i < kDaemonActions; ++i) {
    const TActionTally& tally = seen.Actions.at(i);
    actions.Add(kActionNames.at(i), TJsonObject()
                                        .Add("total", std::to_string(tally.Total))
                                        .Add("last_age_seconds", JsonSeconds(tally.LastAgeSec))
                                        .Text());
  }
  return actions.Text();
}

std::string JsonDaemon(const TGuardianStatus& status) {
  const std::string& pid = status.Watchdog.Pid;
  return TJsonObject()
      .Add("pid", pid.empty() ? "null" : JsonText(pid))
      .Add("path", JsonText(status.DaemonPath))
      .Add("path_exists", JsonBool(status.DaemonPathExists))
      .Add("mutex_path", JsonText(status.MutexPath))
      .Add("paths_received", JsonBool(status.GotPaths && !status.GetPathsError))
      .Text();
}

std::string JsonEvents(const THistoryRecord& history) {
  std::string events;
  for (std::uint32_t i = 0; i < history.EventCount; ++i) {
    const TEvent& event = history.Events.at(i);
    const auto text = [](std::int64_t at) {
      return JsonText(IsoDateTimeToStr(FromUnixSeconds(at)));
    };
    events += (i == 0 ? "" : ",") + TJsonObject()
                                        .Add("time", text(event.FirstAt))
                                        .Add("last_time", text(event.LastAt))
                                        .Add("count", std::to_string(event.Count))
                                        .Add("kind", JsonText(NameOf(event.Kind)))
                                        .Add("text", JsonText(event.Shown()))
                                        .Text();
  }
  return "[" + events + "]";
}

// A metric family and its samples.
class TMetrics {
 public:
  explicit TMetrics(TMetricsFormat format) : FFormat(format) {}

  void Family(std::string_view name, std::string_view type, std::string_view help) {
    FName = std::string("vellumark_guardian_").append(name);
    std::string family = FName;
    // In the text format a family is named as its samples are, and there are no units.
    const bool isText = FFormat == TMetricsFormat::Text;
    if (isText && type == "counter") family += "_total";
    if (isText && type == "info") {
      family += "_info";
      type = "gauge";
    }
    FText.append("# TYPE ").append(family).append(" ").append(type).append("\n");
    if (!isText && name.ends_with("_seconds")) {
      FText.append("# UNIT ").append(family).append(" seconds\n");
    }
    FText.append("# HELP ").append(family).append(" ").append(help).append("\n");
  }
  // The suffix, such as "_total" of a counter, is part of the name; labels stand in braces.
  void Sample(std::string_view suffixAndLabels, std::string_view value) {
    FText.append(FName).append(suffixAndLabels).append(" ").append(value).append("\n");
  }
  void Gauge(std::string_view name, std::string_view help, std::string_view value) {
    Family(name, "gauge", help);
    Sample("", value);
  }
  void Counter(std::string_view name, std::string_view help, std::int64_t value) {
    Family(name, "counter", help);
    Sample("_total", std::to_string(value));
  }
  [[nodiscard]] std::string Text() && {
    return std::move(FText) + (FFormat == TMetricsFormat::OpenMetrics ? "# EOF\n" : "");
  }

 private:
  const TMetricsFormat FFormat;
  std::string FName;
  std::string FText;
};

void AddChecks(const TWatchdogReading& seen, TMetrics& metrics) {
  metrics.Family("check_ok", "gauge", "Whether the last look found it well.");
  metrics.Sample("{check=\"mutex\"}", seen.MutexOK ? "1" : "0");
  metrics.Sample("{check=\"pipe\"}", seen.PipeOK ? "1" : "0");
  metrics.Sample("{check=\"service\"}", seen.ServiceOK ? "1" : "0");
  metrics.Family("failures", "gauge", "Failed looks in a row while the daemon ran.");
  metrics.Sample("{check=\"mutex\"}", std::to_string(seen.MutexFailures));
  metrics.Sample("{check=\"pipe\"}", std::to_string(seen.PipeFailures));
  if (seen.CheckAgeSec) {
    metrics.Gauge("check_age_seconds", "Time since the last look.", Seconds(*seen.CheckAgeSec));
  }
  metrics.Gauge("pulse", "The last pulse of the daemon.", std::to_string(seen.Pulse));
  metrics.Gauge("pulse_age_seconds", "Time since the pulse changed, or since none is expected.",
                Seconds(seen.PulseAgeSec));
}

void AddActions(const TWatchdogReading& seen, TMetrics& metrics) {
  metrics.Counter("rounds", "Rounds of the watchdog.", seen.Rounds);
  metrics.Counter("restarts", "Restarts of a hung daemon that were begun.", seen.Restarts);
  metrics.Gauge("restart_attempts", "Steps of the restart under way.",
                std::to_string(seen.RestartAttempts));
  metrics.Family("actions", "counter", "Commands that were run on the daemon.");
  for (std::size_t i = 0; i < kDaemonActions; ++i) {
    metrics.Sample(std::string("_total{action=\"") + kActionNames.at(i) + "\"}",
                   std::to_string(seen.Actions.at(i).Total));
  }
  metrics.Family("action_age_seconds", "gauge", "Time since the last such command.");
  for (std::size_t i = 0; i < kDaemonActions; ++i) {
    const auto& age = seen.Actions.at(i).LastAgeSec;
    if (!age) continue;
    metrics.Sample(std::string("{action=\"") + kActionNames.at(i) + "\"}", Seconds(*age));
  }
}

}  // namespace

std::string StatusJson(const std::optional<TGuardianStatus>& status,
                       std::optional<std::uint16_t> port) {
  TJsonObject json;
  json.Add("version", JsonText("1.50")).Add("build", "10");
  json.Add("pid", std::to_string(::getpid()));
  json.Add("port", port ? std::to_string(*port) : "null");
  if (status) {
    const TWatchdogReading& seen = status->Watchdog;
    json.Add("uptime_seconds", Seconds(seen.UptimeSec));
    json.Add("checks", JsonChecks(seen));
    json.Add("daemon", JsonDaemon(*status));
    json.Add("pulse", TJsonObject()
                          .Add("value", std::to_string(seen.Pulse))
                          .Add("age_seconds", Seconds(seen.PulseAgeSec))
                          .Text());
    json.Add("counters", JsonCounters(seen));
    json.Add("actions", JsonActions(seen));
    json.Add("hold", JsonSeconds(seen.HoldLeftSec));
    if (status->History) json.Add("events", JsonEvents(*status->History->Get()));
  }
  return json.Text() + "\n";
}

std::string Metrics(const std::optional<TGuardianStatus>& status, TMetricsFormat format) {
  TMetrics metrics(format);
  metrics.Family("build", "info", "The running Guardian.");
  metrics.Sample("_info{version=\"1.50\",build=\"10\"}", "1");
  if (status) {
    metrics.Gauge("uptime_seconds", "Time since the watchdog was started.",
                  Seconds(status->Watchdog.UptimeSec));
    AddChecks(status->Watchdog, metrics);
    AddActions(status->Watchdog, metrics);
    metrics.Gauge("hold_seconds", "Time until the hold ends, 0 when there is none.",
                  Seconds(status->Watchdog.HoldLeftSec.value_or(0)));
  }
  return std::move(metrics).Text();
}

}  // namespace guardian
