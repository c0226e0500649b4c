#include "common/Environment.h"

#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string_view>

#include "common/Texts.h"

namespace guardian {
namespace {

std::string_view WithoutBlanks(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

}  // namespace

std::string EnvironmentText(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? std::string(WithoutBlanks(value)) : std::string();
}

std::vector<std::string> EnvironmentList(const char* name) {
  const std::string value = EnvironmentText(name);
  std::vector<std::string> entries;
  for (const std::string_view piece : Split(value, ',')) {
    const std::string_view entry = WithoutBlanks(piece);
    if (!entry.empty()) entries.emplace_back(entry);
  }
  return entries;
}

std::string HostName() {
  std::array<char, 256> name{};
  return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : std::string();
}

}  // namespace guardian
