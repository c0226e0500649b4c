#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <vector>

namespace guardian {

using TChildFunction = std::function<int(const std::vector<std::string>& arguments)>;

inline std::map<std::string, TChildFunction>& ChildFunctions() {
  static std::map<std::string, TChildFunction> functions;
  return functions;
}

// Declared at namespace scope in a test file: what the test binary does when it is started as
// "/proc/self/exe --child NAME ARG...".
struct TRegisterChild {
  TRegisterChild(const std::string& name, TChildFunction function) {
    ChildFunctions()[name] = std::move(function);
  }
};

// Gives this process mounts of its own; false where that is not allowed, as to an ordinary user.
inline bool HasOwnMounts() {
  return ::unshare(CLONE_NEWNS) == 0 &&
         ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

// What the function returns in a forked child.
inline int StatusOfChild(const std::function<int()>& function) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(function());
  int status = -1;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace guardian
