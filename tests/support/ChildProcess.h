#pragma once

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

}  // namespace guardian
