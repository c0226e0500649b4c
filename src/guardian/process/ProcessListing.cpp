#include "guardian/process/ProcessListing.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <system_error>

#include "common/Clock.h"
#include "common/FileDescriptor.h"
#include "common/Texts.h"

namespace guardian {
namespace {

bool IsOptionError(std::string_view output) {
  return Contains(output, "unsupported option") || Contains(output, "invalid option") ||
         Contains(output, "unrecognized option");
}

bool ShowsDaemon(std::string_view line) {
  // "[V]vellumark" is spelled so on purpose and stays so.
  constexpr std::array<std::string_view, 5> kExcluded = {"/RUN", "defunct", "[VellumarkCL]",
                                                         "[V]vellumark", "grep \""};
  return Contains(line, "VellumarkCL") &&
         std::none_of(kExcluded.begin(), kExcluded.end(),
                      [&](std::string_view excluded) { return Contains(line, excluded); });
}

// Removes the first word, and the blanks before it, from the line and returns it.
std::string_view TakeWord(std::string_view& line) {
  line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
  const std::string_view word = line.substr(0, line.find(' '));
  line.remove_prefix(word.size());
  return word;
}

// 0 for a word that is no process id.
pid_t PidIn(std::string_view word) {
  pid_t pid = 0;
  const auto parsed = std::from_chars(word.data(), word.data() + word.size(), pid);
  const bool whole = parsed.ec == std::errc() && parsed.ptr == word.data() + word.size();
  return whole && pid > 0 ? pid : 0;
}

// The column for the process id is the second one, behind the user; small systems have it first.
bool ShowsOwnProcess(std::string_view line, const TIsOwnProcess& isOwn) {
  const pid_t first = PidIn(TakeWord(line));
  const pid_t second = PidIn(TakeWord(line));
  const pid_t pid = second != 0 ? second : first;
  return pid != 0 && isOwn(pid);
}

}  // namespace

TProcessListing ListDaemonProcesses(const TShell& shell, int timeoutSec, TPsOptions options) {
  TProcessListing listing{{}, options};
  if (options == TPsOptions::Columns) {
    listing.Text =
        shell(R"(ps -ef --columns 1000 | grep -e "[V]ellumarkCL" -e "[o]ption")", timeoutSec);
    if (IsOptionError(listing.Text)) listing.Options = TPsOptions::Plain;
  }
  // The comparison with "0" is deliberate and stays.
  if (listing.Options == TPsOptions::Plain || listing.Text == "0") {
    listing.Text = shell(R"(ps -ef | grep "[V]ellumarkCL")", timeoutSec);
  }
  return listing;
}

std::string DaemonPidIn(std::string_view listing, const TIsOwnProcess& isOwn) {
  constexpr std::string_view kDigits = "0123456789";
  for (std::string_view line : Split(listing, '\n')) {
    if (!ShowsDaemon(line) || ShowsOwnProcess(line, isOwn)) continue;
    line.remove_prefix(std::min(line.find_first_of(kDigits), line.size()));
    return std::string(line.substr(0, line.find_first_not_of(kDigits)));
  }
  return {};
}

std::string_view StatBehindName(std::string_view stat) {
  const std::size_t end = stat.rfind(')');
  return end == std::string_view::npos ? std::string_view() : stat.substr(end + 1);
}

std::optional<double> ProcessAgeSec(const std::string& pid) {
  constexpr int kFieldsBetween = 19;  // From the name to the start, in ticks since the boot.
  constexpr std::size_t kMostBytes = 4096;
  if (PidIn(pid) == 0) return std::nullopt;
  const TFileDescriptor file(::open(("/proc/" + pid + "/stat").c_str(), O_RDONLY | O_CLOEXEC));
  std::string text;
  if (!file || ReadToEnd(file.Get(), kMostBytes, text) != 0) return std::nullopt;
  std::string_view fields = StatBehindName(text);
  for (int field = 0; field < kFieldsBetween; ++field) TakeWord(fields);
  const std::string_view start = TakeWord(fields);
  double ticks = 0;
  const auto parsed = std::from_chars(start.data(), start.data() + start.size(), ticks);
  if (parsed.ec != std::errc()) return std::nullopt;
  return static_cast<double>(SystemTickCount()) / 1000 -
         ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

}  // namespace guardian
