// Input: a byte of switches, a line with the page as a browser asks for it, and the text that
// everything from outside consists of: paths, process list, process id, numbers.

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <boost/json.hpp>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Fuzz.h"
#include "common/FileDescriptor.h"
#include "common/Settings.h"
#include "common/Texts.h"
#include "support/TempFolder.h"
#include "webstatus/StatusPages.h"

namespace guardian {
namespace {

constexpr const char* kSecret = "a secret beside the log folder";

// A log folder with files to be had, and everything that could lead out of it.
class TLogFolder {
 public:
  TLogFolder() {
    for (const char* folder : {"logs", "logs/inner", "logs2"}) {
      std::filesystem::create_directory(FFolder.Path(folder));
    }
    for (const char* name : {"good.log", "a b&amp;%41.log", "inner/deep.log", "no.txt"}) {
      AddFile(name);
    }
    for (const char* name : {"secret.log", "logs2/other.log"}) FFolder.Write(name, kSecret);
    AddLinks();
    AddOthers();
  }

  // A way to name the folder.
  [[nodiscard]] std::string Name(unsigned way) const {
    constexpr std::array<const char*, 3> kNames = {"logs", "logs/", "linked"};
    return way < kNames.size() ? FFolder.Path(kNames.at(way)) : std::string();
  }

  // What an open file of the folder holds; null for one that is not in it.
  [[nodiscard]] const std::string* ContentOf(int descriptor) const {
    struct stat info {};
    Require(::fstat(descriptor, &info) == 0, "the answer's file is not open");
    const auto found = FContents.find({info.st_dev, info.st_ino});
    return found == FContents.end() ? nullptr : &found->second;
  }

 private:
  using TFileId = std::pair<dev_t, ino_t>;

  void AddFile(const std::string& name) {
    const std::string path = "logs/" + name;
    FFolder.Write(path, "content of " + name);
    struct stat info {};
    Require(::stat(FFolder.Path(path).c_str(), &info) == 0, "the log folder cannot be built");
    FContents[{info.st_dev, info.st_ino}] = "content of " + name;
  }

  void AddLinks() {
    const std::vector<std::pair<const char*, const char*>> links = {
        {"logs/inside.log", "good.log"},
        {"logs/link.log", "../secret.log"},
        {"logs/inner/deeper.log", "../link.log"},
        {"logs/up", ".."},
        {"logs/root", "/"},
        {"logs/broken.log", "nowhere"},
        {"logs/loop.log", "loop.log"},
        {"logs/null.log", "/dev/null"},
        {"logs/self", "/proc/self"},
        {"linked", "logs"}};
    for (const auto& [name, target] : links) {
      std::filesystem::create_symlink(target, FFolder.Path(name));
    }
  }

  void AddOthers() {
    Require(::mkfifo(FFolder.Path("logs/pipe.log").c_str(), 0600) == 0, "no named pipe");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = FFolder.Path("logs/socket.log");
    Require(path.size() < sizeof(address.sun_path), "the temp folder's path is too long");
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    FSocket = TFileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    Require(::bind(FSocket.Get(), generic, sizeof(address)) == 0, "no socket");
  }

  const TTempFolder FFolder;
  std::map<TFileId, std::string> FContents;
  TFileDescriptor FSocket;
};

// The switches of an input.
struct TCase {
  explicit TCase(std::uint8_t bits)
      : IsHead((bits & 1U) != 0),
        IsCrossSite((bits & 2U) != 0),
        HasGuardian((bits & 4U) == 0),
        AsksForLog((bits & 8U) != 0),
        FolderName((bits >> 4U) & 3U),
        HasPort((bits & 64U) == 0) {}

  bool IsHead;
  bool IsCrossSite;
  bool HasGuardian;
  bool AsksForLog;
  unsigned FolderName;
  bool HasPort;
};

// Numbers that the text decides, all different; every other one leaves the optional ones out.
TWatchdogReading ReadingFrom(std::string_view outside) {
  std::uint32_t seed = 0;
  std::memcpy(&seed, outside.data(), std::min(outside.size(), sizeof(seed)));
  const auto next = [&seed] {
    seed = seed * 1'103'515'245U + 12'345U;
    return static_cast<std::int32_t>(seed);
  };
  TWatchdogReading reading;
  reading.MutexOK = next() < 0;
  reading.PipeOK = next() < 0;
  reading.ServiceOK = next() < 0;
  if (next() > 0) reading.CheckAgeSec = next() / 7.0;
  reading.Pid = outside;
  reading.Pulse = std::int64_t{next()} * next();
  reading.PulseAgeSec = next() / 3.0;
  reading.Rounds = next();
  reading.Restarts = next();
  reading.RestartAttempts = next();
  reading.MutexFailures = next();
  reading.PipeFailures = next();
  for (TActionTally& tally : reading.Actions) {
    tally.Total = next();
    if (next() > 0) tally.LastAgeSec = next() / 3.0;
  }
  reading.UptimeSec = next() / 11.0;
  if (next() > 0) reading.HoldLeftSec = 1 + next() / 1e10;
  return reading;
}

class TFakeGuardian final : public TGuardianControl {
 public:
  explicit TFakeGuardian(std::string_view outside) {
    FStatus.StatusText = MakeText("running");
    FStatus.DaemonPath = FStatus.MutexPath = FStatus.DaemonTempPath = outside;
    FStatus.GotPaths = outside.size() % 2 == 0;
    FStatus.GetPathsError = FStatus.DaemonPathExists = outside.size() % 3 == 0;
    FStatus.ProcessList = FStatus.InitialOutput = MakeText(std::string(outside));
    FStatus.ProcessListTime = 46347.25;
    FStatus.ActivityLog = FStatus.DetailedLog = {MakeText("<br>"), MakeText("entry")};
    FStatus.Watchdog = ReadingFrom(outside);
    FStatus.Watchdog.Next = outside;
    const auto history = std::make_shared<THistory>(SystemClock());
    history->AddEvent(TEventKind::Error, outside);
    FStatus.History = history;
  }

  TGuardianStatus Status() const override { return FStatus; }
  [[nodiscard]] const TGuardianStatus& Now() const { return FStatus; }
  void RequestStart() override { ++Deeds; }
  void RequestStop() override { ++Deeds; }
  void RequestTerminate() override { ++Deeds; }
  void RequestKill() override { ++Deeds; }
  void Hold(std::chrono::minutes /*length*/) override { ++Deeds; }
  void Release() override { ++Deeds; }

  int Deeds = 0;

 private:
  TGuardianStatus FStatus;
};

// Asks for pages in the surroundings of one input.
class TPages {
 public:
  TPages(const TCase& how, std::string_view outside) : FCase(how), FGuardian(outside) {}

  THttpResponse Get(const std::string& path, const std::string& accept = "") {
    THttpRequest request;
    request.Method = FCase.IsHead ? "HEAD" : "GET";
    request.Path = path;
    request.Headers = {{"Accept", accept}};
    if (FCase.IsCrossSite) request.Headers.emplace_back("Sec-Fetch-Site", "cross-site");
    TPageSources sources;
    if (FCase.HasGuardian) sources.Guardian = &FGuardian;
    sources.TerminateGuardian = [this] { ++FGuardian.Deeds; };
    if (FCase.HasPort) sources.Port = 8900;
    sources.Guard = &FGuard;
    return BuildPage(request, sources);
  }

  [[nodiscard]] int Deeds() const { return FGuardian.Deeds; }
  [[nodiscard]] const TGuardianStatus& Now() const { return FGuardian.Now(); }

 private:
  const TCase FCase;
  const TRequestGuard FGuard{{}, {}, "secret"};
  TFakeGuardian FGuardian;
};

// All tags of a page in their order, without line breaks, of which a text may bring its own.
std::string TagsOf(std::string_view page) {
  std::string tags;
  for (std::size_t at = page.find('<'); at != std::string_view::npos; at = page.find('<', at)) {
    const std::string_view tag = page.substr(at, page.find('>', at) - at + 1);
    if (tag != "<br>") tags += tag;
    at += tag.size();
  }
  return tags;
}

void CheckFile(const THttpResponse& response, const TLogFolder& folder) {
  const std::string* content = folder.ContentOf(response.File.Get());
  Require(content != nullptr, "a file that is not of the log folder");
  std::string text;
  Require(ReadToEnd(response.File.Get(), 1 << 20, text) == 0, "the file cannot be read");
  Require(text == *content && response.FileSize == text.size(), "a log file is not as it is");
  Require(response.Body.empty(), "a file and a page in one answer");
}

// What somebody asks for must not become markup of the answer, nor must what comes from outside.
void CheckMarkup(const THttpResponse& response, const std::string& path, const TCase& how) {
  if (response.ContentType != "text/html") return;
  const bool isLog = path.find("vellumark_logs", 1) == 1;
  const std::string same = isLog ? "/vellumark_logs/missing.log" : path;
  if (path.size() > 1 && !isLog) return;
  const THttpResponse plain = TPages(how, "plain").Get(same);
  Require(TagsOf(response.Body) == TagsOf(plain.Body), "a text turned into markup");
}

constexpr std::array<const char*, kDaemonActions> kActionNames = {"start", "stop", "terminate",
                                                                  "kill"};

std::string Seconds(double seconds) { return FormatFixed(seconds, 0, 3); }

// What status.json says at a path of names, a number in the form in which the metrics have it.
std::string At(const boost::json::value& json, const std::vector<std::string_view>& names) {
  const boost::json::value* value = &json;
  for (const std::string_view name : names) {
    value = &value->as_object().at(boost::json::string_view(name.data(), name.size()));
  }
  if (value->is_null()) return "";
  if (value->is_bool()) return value->as_bool() ? "1" : "0";
  if (value->is_double()) return Seconds(value->as_double());
  return value->is_int64() ? std::to_string(value->as_int64()) : "?";
}

// Every number of the reading by its place in status.json and by its name in the metrics.
struct TNumber {
  std::vector<std::string_view> Names;
  std::string Sample;
  std::string Value;
};

std::string HoldOf(const TWatchdogReading& seen, const std::string& none) {
  return seen.HoldLeftSec ? Seconds(*seen.HoldLeftSec) : none;
}

std::vector<TNumber> NumbersOf(const TWatchdogReading& seen) {
  const auto optional = [](const std::optional<double>& age) { return age ? Seconds(*age) : ""; };
  const auto flag = [](bool value) { return std::string(value ? "1" : "0"); };
  std::vector<TNumber> numbers = {
      {{"uptime_seconds"}, "uptime_seconds", Seconds(seen.UptimeSec)},
      {{"checks", "mutex"}, "check_ok{check=\"mutex\"}", flag(seen.MutexOK)},
      {{"checks", "pipe"}, "check_ok{check=\"pipe\"}", flag(seen.PipeOK)},
      {{"checks", "service"}, "check_ok{check=\"service\"}", flag(seen.ServiceOK)},
      {{"checks", "age_seconds"}, "check_age_seconds", optional(seen.CheckAgeSec)},
      {{"pulse", "value"}, "pulse", std::to_string(seen.Pulse)},
      {{"pulse", "age_seconds"}, "pulse_age_seconds", Seconds(seen.PulseAgeSec)},
      {{"counters", "rounds"}, "rounds_total", std::to_string(seen.Rounds)},
      {{"counters", "restarts"}, "restarts_total", std::to_string(seen.Restarts)},
      {{"counters", "restart_attempts"}, "restart_attempts", std::to_string(seen.RestartAttempts)},
      {{"counters", "mutex_failures"},
       "failures{check=\"mutex\"}",
       std::to_string(seen.MutexFailures)},
      {{"counters", "pipe_failures"},
       "failures{check=\"pipe\"}",
       std::to_string(seen.PipeFailures)}};
  for (std::size_t i = 0; i < kDaemonActions; ++i) {
    const std::string_view name = kActionNames.at(i);
    const std::string label = "{action=\"" + std::string(name) + "\"}";
    const TActionTally& tally = seen.Actions.at(i);
    numbers.push_back(
        {{"actions", name, "total"}, "actions_total" + label, std::to_string(tally.Total)});
    numbers.push_back({{"actions", name, "last_age_seconds"},
                       "action_age_seconds" + label,
                       optional(tally.LastAgeSec)});
  }
  return numbers;
}

// The text with each byte that is not part of a character replaced, as a strict parser tells them
// apart.
std::string MadeUtf8(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    std::size_t length = std::min<std::size_t>(text.size(), 4);
    const auto isCharacter = [&] {
      boost::json::error_code error;
      const std::string first(text.substr(0, length));
      const auto parsed = boost::json::parse("\"" + first + "\"", error);
      return !error && static_cast<unsigned char>(first.front()) > 0x7F &&
             std::all_of(first.begin() + 1, first.end(),
                         [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U; });
    };
    while (length > 1 && !isCharacter()) --length;
    const bool isAscii = static_cast<unsigned char>(text.front()) <= 0x7F;
    result += length > 1 || isAscii ? std::string(text.substr(0, length)) : "\xEF\xBF\xBD";
    text.remove_prefix(length);
  }
  return result;
}

void CheckJson(const std::string& body, const TCase& how, std::string_view outside,
               const TGuardianStatus& status) {
  boost::json::error_code error;
  // Its parser is strict, also about UTF-8.
  const boost::json::value json = boost::json::parse(body, error);
  Require(!error, "status.json: " + error.message() + " in " + body);
  Require(body.find('\n') + 1 == body.size(), "status.json is not one line");
  Require(At(json, {"port"}) == (how.HasPort ? "8900" : ""), "status.json tells another port");
  Require(json.at("version") == "1.50" && At(json, {"build"}) == "10", "status.json: version");
  if (!how.HasGuardian) return;
  const bool gotPaths = status.GotPaths && !status.GetPathsError;
  Require(At(json, {"daemon", "paths_received"}) == (gotPaths ? "1" : "0"), "status.json: paths");
  Require(At(json, {"daemon", "path_exists"}) == (status.DaemonPathExists ? "1" : "0"),
          "status.json: whether the daemon's file exists");
  const auto& path = json.at("daemon").at("path").as_string();
  Require(json.at("daemon").at("mutex_path").as_string() == path, "status.json: the mutex path");
  Require(std::string_view(path.data(), path.size()) == MadeUtf8(outside),
          "status.json tells another path");
  Require(json.at("daemon").at("pid").is_null() == outside.empty(), "status.json: the pid");
  Require(At(json, {"hold"}) == HoldOf(status.Watchdog, ""), "status.json: not the hold");
  for (const TNumber& number : NumbersOf(status.Watchdog)) {
    Require(At(json, number.Names) == number.Value, "status.json: not the " + number.Sample);
  }
}

void CheckMetrics(std::string_view body, const TCase& how, const TWatchdogReading& seen) {
  constexpr std::string_view kPrefix = "vellumark_guardian_";
  std::map<std::string, std::string, std::less<>> samples;
  for (const std::string_view line : Split(body.substr(0, body.size() - 1), '\n')) {
    if (line.starts_with("# ")) continue;
    const std::size_t blank = line.rfind(' ');
    Require(line.starts_with(kPrefix) && blank != std::string_view::npos,
            "a line of metrics: " + std::string(line));
    samples.emplace(line.substr(kPrefix.size(), blank - kPrefix.size()), line.substr(blank + 1));
  }
  Require(samples.erase("build_info{version=\"1.50\",build=\"10\"}") == 1, "metrics: the build");
  if (how.HasGuardian) {
    Require(samples["hold_seconds"] == HoldOf(seen, "0.000"), "metrics: not the hold");
    samples.erase("hold_seconds");
    for (const TNumber& number : NumbersOf(seen)) {
      const auto found = samples.find(number.Sample);
      Require((found == samples.end() ? "" : found->second) == number.Value,
              "metrics: not the " + number.Sample);
      if (found != samples.end()) samples.erase(found);
    }
  }
  Require(samples.empty(), "metrics that nobody knows");
}

void CheckPage(const TCase& how, const std::string& path, std::string_view outside) {
  static const TLogFolder folder;
  Settings().LogDirectory.Set(folder.Name(how.FolderName));
  TPages pages(how, outside);
  const THttpResponse response = pages.Get(path);
  if (path == "/vellumark_logs/good.log") {
    Require(response.File.Get() >= 0 || folder.Name(how.FolderName).empty(), "no good.log");
  }
  Require(pages.Deeds() <= (how.IsHead || how.IsCrossSite ? 0 : 1), "a deed nobody asked for");
  if (response.File) {
    CheckFile(response, folder);
  } else {
    const bool named = (path + std::string(outside)).find(kSecret) != std::string::npos;
    Require(named || response.Body.find(kSecret) == std::string::npos, "a page shows the secret");
    CheckMarkup(response, path, how);
  }
  CheckJson(pages.Get("/status.json").Body, how, outside, pages.Now());
  const std::string open = pages.Get("/metrics", "application/openmetrics-text").Body;
  Require(open.ends_with("\n# EOF\n"), "metrics do not end as they must");
  for (const std::string& body : {open, pages.Get("/metrics").Body}) {
    CheckMetrics(body, how, pages.Now().Watchdog);
  }
}

}  // namespace
}  // namespace guardian

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  guardian::TFuzzInput input(data, size);
  const guardian::TCase how(input.Byte());
  const std::string target = guardian::LinkDecode(input.Line());
  const std::string path = how.AsksForLog ? "/vellumark_logs" + target : target;
  guardian::CheckPage(how, path, input.Rest());
  return 0;
}
