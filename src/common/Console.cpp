#include "common/Console.h"

#include <cstdio>
#include <string>

namespace guardian {

void PrintLine(std::string_view text) {
  std::string line;
  line.reserve(text.size() + 1);
  line.append(text).push_back('\n');
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

}  // namespace guardian
