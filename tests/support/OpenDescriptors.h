#pragma once

#include <fcntl.h>

#include <filesystem>
#include <set>

namespace guardian {

// The descriptors of this process.
inline std::set<int> OpenDescriptors() {
  std::set<int> numbers;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    numbers.insert(std::stoi(entry.path().filename().string()));
  }
  // The one of the listing itself is closed by now.
  std::erase_if(numbers, [](int number) { return ::fcntl(number, F_GETFD) < 0; });
  return numbers;
}

}  // namespace guardian
