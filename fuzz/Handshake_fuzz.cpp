// Input: what the daemon answers when it is asked for its paths.

#include <optional>
#include <string>
#include <string_view>

#include "Fuzz.h"
#include "guardian/DaemonLookups.h"

namespace guardian {
namespace {

// The value of the last line that begins with the prefix.
std::optional<std::string> LastValue(std::string_view output, const std::string& prefix) {
  const std::string text = "\n" + std::string(output) + "\n";
  const std::size_t at = text.rfind("\n" + prefix);
  if (at == std::string::npos) return std::nullopt;
  const std::size_t start = at + 1 + prefix.size();
  return text.substr(start, text.find('\n', start) - start);
}

void CheckAnswer(std::string_view output) {
  const TDaemonPaths paths = ParseDaemonPaths(output);
  Require(paths.Temp == LastValue(output, "TMP="), "another temp path");
  Require(paths.Mutex == LastValue(output, "MUTEX="), "another mutex path");
  Require(paths.Logs == LastValue(output, "LOGS="), "another log path");
}

}  // namespace
}  // namespace guardian

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  guardian::CheckAnswer(guardian::TFuzzInput(data, size).Rest());
  return 0;
}
