// Input: a line that the first listing command prints, and what the second one prints.

#include <cstdlib>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "Fuzz.h"
#include "guardian/DaemonProcess.h"
#include "support/FakeClock.h"

namespace guardian {
namespace {

bool NamesDaemon(const std::string& line) {
  for (const char* other : {"/RUN", "defunct", "[VellumarkCL]", "[V]vellumark", "grep \""}) {
    if (line.find(other) != std::string::npos) return false;
  }
  return line.find("VellumarkCL") != std::string::npos;
}

// The Guardian's process id in these lists.
constexpr pid_t kOwn = 77;
const TIsOwnProcess kIsOwn = [](pid_t pid) { return pid == kOwn; };

// Whether the second word of the line, or the first one where the second is no number, is the
// Guardian's process id.
bool IsOwnLine(const std::string& line) {
  const auto number = [](const std::string& word) {
    const bool digits = word.find_first_not_of("0123456789") == std::string::npos;
    return digits ? std::strtoll(("0" + word).c_str(), nullptr, 10) : 0;
  };
  std::vector<std::string> words = {"", ""};
  std::size_t at = 0;
  for (std::string& word : words) {
    while (at < line.size() && line[at] == ' ') ++at;
    while (at < line.size() && line[at] != ' ') word.push_back(line[at++]);
  }
  const long long second = number(words[1]);
  const bool isPid = second > 0 && second <= std::numeric_limits<pid_t>::max();
  return (isPid ? second : number(words[0])) == kOwn;
}

// The first digits of the first line that names the daemon, byte by byte.
std::string PlainPid(std::string_view listing) {
  std::istringstream lines{std::string(listing)};
  std::string line;
  while (std::getline(lines, line)) {
    if (!NamesDaemon(line) || IsOwnLine(line)) continue;
    std::string pid;
    for (const char c : line) {
      const bool digit = c >= '0' && c <= '9';
      if (digit) pid.push_back(c);
      if (!digit && !pid.empty()) break;
    }
    return pid;
  }
  return {};
}

// Whether ps refused its options, or answered with the zero that stands for that too.
bool IsRefusal(std::string_view columns) {
  for (const char* part : {"unsupported option", "invalid option", "unrecognized option"}) {
    if (columns.find(part) != std::string_view::npos) return true;
  }
  return columns == "0";
}

void CheckListing(std::string_view columns, std::string_view plain) {
  int commands = 0;
  const TShell shell = [&](const std::string& commandLine, int timeoutSec) {
    Require(++commands <= 2, "more than two commands for one look");
    Require(timeoutSec > 0, "a command without a time limit");
    const bool isFirst = commandLine.find("--columns") != std::string::npos;
    return std::string(isFirst ? columns : plain);
  };
  TFakeClock clock;
  TDaemonProcess process(shell, kIsOwn, clock);
  const bool running = process.Check(TProcessCheck::Force);
  Require(commands == (IsRefusal(columns) ? 2 : 1), "another number of commands");
  const std::string pid = PlainPid(commands == 2 ? plain : columns);
  Require(process.Pid() == pid, "another process id");
  Require(running == !pid.empty(), "running and process id do not agree");
  Require(process.LastListing()->size() <= kShownOutputBytes + 100, "a flood reaches the pages");
}

}  // namespace
}  // namespace guardian

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  guardian::TFuzzInput input(data, size);
  guardian::Require(
      guardian::DaemonPidIn(input.Rest(), guardian::kIsOwn) == guardian::PlainPid(input.Rest()),
      "another process id in a whole listing");
  const std::string_view columns = input.Line();
  guardian::CheckListing(columns, input.Rest());
  return 0;
}
