#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <optional>
#include <vector>

#include "support/Eventually.h"
#include "support/TempFolder.h"

namespace guardian {

// A real program that runs beside the test, with its standard output and error in a file.
// Owner: the test; the destructor kills what still runs, and reaps it.
// Threads: not shared.
class TProgram {
 public:
  // The environment's entries, as in "NAME=value", win over those of the test. Throws
  // std::system_error when the program cannot be started.
  explicit TProgram(std::vector<std::string> arguments, std::vector<std::string> environment = {}) {
    for (char** entry = environ; *entry != nullptr; ++entry) environment.emplace_back(*entry);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, FFolder.Path("output").c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0600);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    const int error = ::posix_spawn(&FPid, arguments.front().c_str(), &actions, nullptr,
                                    Pointers(arguments).data(), Pointers(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::system_error(error, std::generic_category(), arguments.front());
  }

  ~TProgram() {
    if (!Running()) return;
    Signal(SIGKILL);
    ::waitpid(FPid, nullptr, 0);
  }

  [[nodiscard]] pid_t Pid() const { return FPid; }
  void Signal(int signal) const { ::kill(FPid, signal); }

  [[nodiscard]] bool Running() {
    int status = 0;
    if (!FExitCode && ::waitpid(FPid, &status, WNOHANG) == FPid) {
      FExitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    return !FExitCode;
  }

  // Waits for the end: the exit code, or the number of the signal that ended it as a negative
  // number. Throws std::runtime_error when it does not end within the limit.
  int Wait(std::chrono::seconds limit = std::chrono::seconds(30)) {
    if (!Eventually([this] { return !Running(); }, limit)) {
      throw std::runtime_error("the program does not end; it printed: " + Output());
    }
    return *FExitCode;
  }

  [[nodiscard]] std::string Output() const { return FFolder.Read("output"); }

 private:
  static std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
  }

  TTempFolder FFolder;
  pid_t FPid = 0;
  std::optional<int> FExitCode;
};

}  // namespace guardian
