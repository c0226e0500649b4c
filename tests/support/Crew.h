#pragma once

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
    for (const auto& thread : FThreads) {
      if (!thread->Finished()) return false;
    }
    return true;
  }

 private:
  std::vector<std::unique_ptr<TFunctionThread>> FThreads;
};

// Runs the function in a thread of its own, to its end.
inline void InThread(const std::function<void()>& work) {
  TCrew(1, [&work](int) { work(); }).Join();
}

}  // namespace guardian
