#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/AtEnd.h"
#include "common/Thread.h"

namespace guardian {

// Why somebody is told.
enum class TNoticeKind { Error, Warning, Recovered, Held, Released };

// Tells somebody by a program of the operator's, which is run once for each notice, with
// VELLUMARK_GUARDIAN_KIND (error, warning, recovered, held or released), _TEXT, _HOST and _STATUS
// in its environment, each of them cut at 4096 bytes. At most 4 run at a time, and each is ended
// after 30 seconds as a shell command is; 16 more notices wait.
// Owner: the entry; made after the process has become a daemon.
// Threads: any thread calls Tell and TakeProblems, which never wait for a program or a disk; the
// owner's thread makes and destroys it.
// Lifetime: the destructor ends the programs that run, within a second.
class TNotifier {
 public:
  // Without a program nobody is told. One that is no absolute path of an executable file is a
  // printed line, soon afterwards, and nobody is told either. Throws ESystemError when a thread
  // cannot be started.
  explicit TNotifier(const std::string& program);
  ~TNotifier();
  TNotifier(const TNotifier&) = delete;
  TNotifier& operator=(const TNotifier&) = delete;

  // Plain texts; the status is the watchdog's status line. A notice for which there is no room is
  // dropped and becomes one of the problems.
  void Tell(TNoticeKind kind, std::string_view text, std::string_view status);

  // What went wrong since the last call, a plain line each, at most 16.
  [[nodiscard]] std::vector<std::string> TakeProblems();

 private:
  // Shared with threads that are left behind.
  const std::shared_ptr<class TNoticeQueue> FQueue;
  std::vector<std::unique_ptr<TThread>> FThreads;
  // Before the threads are joined, also when not all of them could be started.
  const TAtEnd<std::function<void()>> FCloseQueue;
};

}  // namespace guardian
