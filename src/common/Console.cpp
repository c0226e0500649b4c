#include "common/Console.h"

#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <string>

#include "common/FileDescriptor.h"

namespace guardian {
namespace {

// One call and no allocation, so that it works when little else does.
void WriteLineToStandardError(std::string_view prefix, std::string_view text) noexcept {
  const auto part = [](std::string_view piece) {
    return iovec{const_cast<char*>(piece.data()), piece.size()};
  };
  const std::array<iovec, 3> line = {part(prefix), part(text), part("\n")};
  [[maybe_unused]] const ssize_t written = RetryOnEintr(
      [&] { return ::writev(STDERR_FILENO, line.data(), static_cast<int>(line.size())); });
}

}  // namespace

void PrintLine(std::string_view text) {
  std::string line;
  line.reserve(text.size() + 1);
  line.append(text).push_back('\n');
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

void DebugOutput(std::string_view text) noexcept { WriteLineToStandardError("", text); }

void KZAssert(bool condition, std::string_view label) noexcept {
  if (!condition) WriteLineToStandardError("Assertion failed: ", label);
}

}  // namespace guardian
