#pragma once

#include <string>
#include <vector>

namespace guardian {

// The value of an environment variable, without blanks around it; empty when it is not set.
// Threads: any, as long as none changes the environment.
[[nodiscard]] std::string EnvironmentText(const char* name);

// The entries of a variable that lists them with commas between, without blanks around them and
// without empty ones.
[[nodiscard]] std::vector<std::string> EnvironmentList(const char* name);

// The machine's own name; empty when it has none. Threads: any.
[[nodiscard]] std::string HostName();

}  // namespace guardian
