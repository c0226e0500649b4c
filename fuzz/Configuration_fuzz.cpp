// Input: the text of the daemon's configuration file.

#include <string>
#include <string_view>
#include <vector>

#include "Fuzz.h"
#include "guardian/DaemonLookups.h"

namespace guardian {
namespace {

std::vector<std::string> PathsOneByOne(std::string_view conf) {
  constexpr std::string_view kStart = "\ndaemon=";
  const std::string text = "\n" + std::string(conf) + "\n";
  std::vector<std::string> paths;
  for (std::size_t at = text.find(kStart); at != std::string::npos; at = text.find(kStart, at)) {
    at += kStart.size();
    const std::size_t end = text.find('\n', at);
    paths.push_back(text.substr(at, end - at - (text[end - 1] == '\r' ? 1 : 0)));
  }
  return paths;
}

}  // namespace
}  // namespace guardian

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view conf = guardian::TFuzzInput(data, size).Rest();
  guardian::Require(guardian::DaemonPathsInConf(conf) == guardian::PathsOneByOne(conf),
                    "other paths than one by one");
  return 0;
}
