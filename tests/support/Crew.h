#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <vector>

#include "common/Thread.h"

namespace guardian {

// Threads that run the same function with their index. The end of the crew joins them.
class TCrew {
 public:
  TCrew(int size, const std::function<void(int)>& work) {
    for (int index = 0; index < size; ++index) {
      FThreads.push_back(std::make_unique<TFunctionThread>("Test", [=] { work(index); }));
      FThreads.back()->Start();
    }
  }

  void Join() { FThreads.clear(); }

  [[nodiscard]] bool Finished() const {
    return std::ranges::all_of(FThreads, &TFunctionThread::Finished);
  }

 private:
  std::vector<std::unique_ptr<TFunctionThread>> FThreads;
};

// The threads of this process whose names begin so.
inline int CountThreads(const std::string& start) {
  int count = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name;
    std::getline(std::ifstream(task.path() / "comm"), name);
    count += name.starts_with(start) ? 1 : 0;
  }
  return count;
}

// Runs the function in a thread of its own, to its end.
inline void InThread(const std::function<void()>& work) {
  TCrew(1, [&work](int) { work(); }).Join();
}

}  // namespace guardian
