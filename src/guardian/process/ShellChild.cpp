#include "guardian/process/ShellChild.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>
#include <system_error>
#include <vector>

#include "common/AtEnd.h"
#include "common/Cancellation.h"
#include "common/Clock.h"
#include "common/SignalBlock.h"
#include "guardian/process/ChildRegistry.h"
#include "guardian/process/ProcessListing.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kRound(50);      // Between looks at the size of the output.
constexpr milliseconds kPollRound(10);  // Where nothing tells of the child's end.

// The texts as exec takes them; valid as long as they.
std::vector<char*> Pointers(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (const std::string& text : texts) {
    pointers.push_back(const_cast<char*>(text.c_str()));
  }
  pointers.push_back(nullptr);
  return pointers;
}

// This process's environment with the entries in it; one of the same name gives way, since programs
// differ in which of two they take.
std::vector<std::string> EnvironmentWith(const std::vector<std::string>& entries) {
  std::vector<std::string> environment = entries;
  for (char** own = environ; *own != nullptr; ++own) {
    const std::string_view entry = *own;
    const std::string_view start = entry.substr(0, entry.find('=') + 1);
    if (std::none_of(entries.begin(), entries.end(),
                     [start](const auto& other) { return other.starts_with(start); })) {
      environment.emplace_back(entry);
    }
  }
  return environment;
}

// The instructions for posix_spawn.
class TSpawnSetup {
 public:
  TSpawnSetup() {
    posix_spawn_file_actions_init(&Actions);
    posix_spawnattr_init(&Attributes);
  }
  ~TSpawnSetup() {
    posix_spawn_file_actions_destroy(&Actions);
    posix_spawnattr_destroy(&Attributes);
  }
  TSpawnSetup(const TSpawnSetup&) = delete;
  TSpawnSetup& operator=(const TSpawnSetup&) = delete;

  // The output is copied before "/dev/null" is opened: its number may be 0. The set of all signals
  // is made by hand, since sigfillset leaves out two that the C library keeps for itself, and
  // posix_spawn would make the child ignore those.
  [[nodiscard]] int Prepare(int output) {
    sigset_t all;
    sigset_t none;
    std::memset(&all, 0xff, sizeof(all));
    sigemptyset(&none);
    const int errors[] = {
        posix_spawn_file_actions_adddup2(&Actions, output, STDOUT_FILENO),
        posix_spawn_file_actions_adddup2(&Actions, output, STDERR_FILENO),
        posix_spawn_file_actions_addopen(&Actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0),
        posix_spawn_file_actions_addclosefrom_np(&Actions, STDERR_FILENO + 1),
        posix_spawnattr_setsigdefault(&Attributes, &all),
        posix_spawnattr_setsigmask(&Attributes, &none),
        posix_spawnattr_setpgroup(&Attributes, 0),
        posix_spawnattr_setflags(
            &Attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP)};
    const auto* const failed =
        std::find_if(std::begin(errors), std::end(errors), [](int error) { return error != 0; });
    return failed == std::end(errors) ? 0 : *failed;
  }

  posix_spawn_file_actions_t Actions;
  posix_spawnattr_t Attributes;
};

// The child of a fork: other threads may have held any lock, so only async-signal-safe calls are
// made. Descriptors that are not close-on-exec are closed where the kernel has a call for it.
[[noreturn]] void ReplaceWithProgram(char* const* arguments) noexcept {
  ::setpgid(0, 0);
  for (int number = 1; number < NSIG; ++number) ::signal(number, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  ::syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, 0);
  ::execve(arguments[0], arguments, environ);
  ::_exit(127);
}

// Whether the text of a /proc/<pid>/stat shows a living member of the group.
bool IsLivingMember(const std::string& stat, pid_t group) {
  const std::string_view fields = StatBehindName(stat);
  if (fields.size() < 3) return false;
  const char state = fields[1];
  char* rest = nullptr;
  std::strtol(fields.data() + 2, &rest, 10);  // The parent.
  return std::strtol(rest, nullptr, 10) == group && state != 'Z' && state != 'X';
}

}  // namespace

TShellChild::~TShellChild() {
  if (FPid == 0) return;
  SignalGroup(SIGKILL);
  Reap();
}

int TShellChild::Spawn(const std::vector<std::string>& arguments, int output,
                       const std::vector<std::string>& environment) {
  FThread.Check();
  Children().ReapEnded();
  TSpawnSetup setup;
  if (const int error = setup.Prepare(output); error != 0) return error;
  const std::vector<std::string> whole = EnvironmentWith(environment);
  const TChildRegistry::TStart start;
  pid_t pid = 0;
  const int error =
      ::posix_spawn(&pid, arguments.front().c_str(), &setup.Actions, &setup.Attributes,
                    Pointers(arguments).data(), Pointers(whole).data());
  if (error != 0) return error;
  FPid = pid;
  Children().Add(pid);
  FPidHandle = TFileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  return 0;
}

int TShellChild::Fork(const std::vector<std::string>& arguments) {
  FThread.Check();
  Children().ReapEnded();
  const TChildRegistry::TStart start;
  const std::vector<char*> pointers = Pointers(arguments);
  // No handler of ours runs in the forked child.
  const TSignalBlock block(AllSignals());
  const pid_t pid = ::fork();
  if (pid == -1) return errno;
  if (pid == 0) ReplaceWithProgram(pointers.data());
  // Parent and child both call setpgid, so that the group exists before either goes on.
  ::setpgid(pid, pid);
  FPid = pid;
  Children().Add(pid);
  return 0;
}

void TShellChild::Wait(TShellEnding& ending, const std::function<std::uint64_t()>& outputBytes,
                       const TCancellation* cancellation) {
  FThread.Check();
  while (FPid != 0) {
    const bool isBeingEnded = ending.Reason() != TShellEnd::Exited;
    if (HasEnded() && (FLost || !isBeingEnded || !GroupIsAlive())) return Reap();
    const bool cancelled = cancellation != nullptr && cancellation->IsCancelled();
    switch (ending.Decide(SystemClock().TickCount(), outputBytes(), cancelled)) {
      case TShellAction::Wait:
        Pause(ending, cancellation);
        break;
      case TShellAction::Terminate:
        SignalGroup(SIGTERM);
        break;
      case TShellAction::Kill:
        SignalGroup(SIGKILL);
        break;
      case TShellAction::GiveUp:
        return FEnded ? Reap() : Abandon();
    }
  }
}

// Leaves the zombie in place: while it is there, nobody else can get the group's number.
bool TShellChild::HasEnded() {
  if (FEnded) return true;
  siginfo_t info{};
  FLost = ::waitid(P_PID, static_cast<id_t>(FPid), &info, WEXITED | WNOHANG | WNOWAIT) != 0;
  FEnded = FLost || info.si_pid == FPid;
  return FEnded;
}

// True also where /proc cannot be read: the group then gets its full time and SIGKILL.
bool TShellChild::GroupIsAlive() const {
  std::error_code error;
  std::filesystem::directory_iterator entries("/proc", error);
  if (error) return true;
  for (const auto end = std::filesystem::directory_iterator(); entries != end;
       entries.increment(error)) {
    const char first = entries->path().filename().c_str()[0];
    if (first < '1' || first > '9') continue;
    std::string stat;
    std::getline(std::ifstream(entries->path() / "stat"), stat, '\0');
    if (IsLivingMember(stat, FPid)) return true;
  }
  return static_cast<bool>(error);
}

void TShellChild::SignalGroup(int number) const noexcept { ::kill(-FPid, number); }

// Does not poll the handle of a zombie nor a cancellation that has happened: both stay readable for
// ever, and the wait would become a spin.
void TShellChild::Pause(const TShellEnding& ending, const TCancellation* cancellation) const {
  const bool tellsOfEnd = FEnded || FPidHandle;
  const bool listens = cancellation != nullptr && !cancellation->IsCancelled();
  pollfd handles[] = {{FEnded ? -1 : FPidHandle.Get(), POLLIN, 0},
                      {listens ? cancellation->Descriptor() : -1, POLLIN, 0}};
  const milliseconds wait = std::min(ending.Left(), tellsOfEnd ? kRound : kPollRound);
  const auto waitMs = static_cast<int>(std::max<milliseconds::rep>(wait.count(), 1));
  if (::poll(handles, std::size(handles), waitMs) < 0 && errno != EINTR) {
    SystemClock().Sleep(kPollRound);
  }
}

// Blocks for a child that has not ended.
void TShellChild::Reap() noexcept {
  int status = 0;
  const pid_t reaped = RetryOnEintr([&] { return ::waitpid(FPid, &status, 0); });
  if (reaped == FPid) {
    FExitCode = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  }
  Children().Remove(FPid);
  FPid = 0;
  FPidHandle.Close();
}

void TShellChild::Abandon() {
  Children().Abandon(FPid);
  FPid = 0;
  FPidHandle.Close();
}

}  // namespace guardian
