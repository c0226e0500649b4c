// Runs a fuzz target once over each file of the folders named, for builds without libFuzzer.

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "Fuzz.h"

namespace {

std::vector<std::filesystem::path> FilesOf(const char* folder) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

void Replay(const std::filesystem::path& file) {
  // Before the run, so that the last line names the input that ends the process.
  std::fprintf(stderr, "replay: %s\n", file.c_str());
  std::ifstream stream(file, std::ios::binary);
  const std::vector<char> bytes(std::istreambuf_iterator<char>(stream), {});
  guardian::Require(!stream.bad() && stream.is_open(), "the input cannot be read");
  // A copy of its exact size, so that the address sanitizer sees a read behind its end.
  const std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
  LLVMFuzzerTestOneInput(input.data(), input.size());
}

}  // namespace

int main(int argc, char** argv) {
  int replayed = 0;
  for (int i = 1; i < argc; ++i) {
    for (const std::filesystem::path& file : FilesOf(argv[i])) {
      Replay(file);
      ++replayed;
    }
  }
  guardian::Require(replayed > 0, "no input to replay");
  std::fprintf(stderr, "replay: %d inputs without a finding\n", replayed);
}
