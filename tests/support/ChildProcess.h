#pragma once

#include <functional>
#include <map>
#include <string>
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

inline int RunChildFunction(const std::string& name, int count, char** arguments) {
  const auto found = ChildFunctions().find(name);
  if (found == ChildFunctions().end()) return 125;
  return found->second(std::vector<std::string>(arguments, arguments + count));
}

}  // namespace guardian
