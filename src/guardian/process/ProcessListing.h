#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace guardian {

// Runs one shell command line for at most the given seconds and returns all it printed.
using TShell = std::function<std::string(const std::string& commandLine, int timeoutSec)>;

// At most this much of a command's output is kept for the pages, so that a command that floods does
// not flood them.
inline constexpr std::size_t kShownOutputBytes = 65'536;

// The options that the system's ps understands.
enum class TPsOptions { Columns, Plain };

struct TProcessListing {
  std::string Text;
  // Plain once ps has refused "--columns". The caller passes it to the next call.
  TPsOptions Options = TPsOptions::Columns;
};

// Returns the lines of the process list that name the daemon, and the error line of a ps that
// refuses its options. Runs one or two commands, each for at most the given seconds.
[[nodiscard]] TProcessListing ListDaemonProcesses(const TShell& shell, int timeoutSec,
                                                  TPsOptions options);

// Whether a process is the Guardian or one of its commands.
using TIsOwnProcess = std::function<bool(pid_t pid)>;

// The process id in the first line of a listing that shows the daemon; empty when none does. A line
// whose column for the process id names an own process is passed over. The id is the first run of
// digits of the line, wherever it stands: a user name that ends in digits is taken for the id.
[[nodiscard]] std::string DaemonPidIn(std::string_view listing, const TIsOwnProcess& isOwn);

// What stands behind the program's name in the text of a /proc/<pid>/stat, from the state on, with
// the blank before it; empty when there is no name. The name may hold anything. Points into the
// text.
[[nodiscard]] std::string_view StatBehindName(std::string_view stat);

// How long the process has been running, in seconds; nothing for a text that is no id of a process
// that runs. Threads: any.
[[nodiscard]] std::optional<double> ProcessAgeSec(const std::string& pid);

}  // namespace guardian
