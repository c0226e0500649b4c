#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

// What libFuzzer calls with each input, and the replay with each file. Returns 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace guardian {

// Ends the process with the finding in a line unless the condition holds.
inline void Require(bool holds, const std::string& finding) {
  if (holds) return;
  std::fprintf(stderr, "fuzz: %s\n", finding.c_str());
  std::abort();
}

// An input, read from its start. The parts are valid as long as the input.
class TFuzzInput {
 public:
  TFuzzInput(const std::uint8_t* data, std::size_t size)
      : FRest(reinterpret_cast<const char*>(data), size) {}

  // The next byte; 0 behind the end.
  std::uint8_t Byte() {
    if (FRest.empty()) return 0;
    const auto byte = static_cast<std::uint8_t>(FRest.front());
    FRest.remove_prefix(1);
    return byte;
  }

  // Up to the next LF, which belongs to neither side.
  std::string_view Line() {
    const std::string_view line = FRest.substr(0, FRest.find('\n'));
    FRest.remove_prefix(line.size() < FRest.size() ? line.size() + 1 : line.size());
    return line;
  }

  [[nodiscard]] std::string_view Rest() const { return FRest; }

 private:
  std::string_view FRest;
};

// The text cut into pieces: each byte of the rule is the length of one, over and over, 0 standing
// for 256. One piece without a rule.
inline std::vector<std::string_view> CutByRule(std::string_view text, std::string_view rule) {
  if (rule.empty()) return {text};
  std::vector<std::string_view> pieces;
  for (std::size_t i = 0; !text.empty(); ++i) {
    const auto length = static_cast<std::uint8_t>(rule[i % rule.size()]);
    pieces.push_back(text.substr(0, length == 0 ? 256 : length));
    text.remove_prefix(pieces.back().size());
  }
  return pieces;
}

}  // namespace guardian
