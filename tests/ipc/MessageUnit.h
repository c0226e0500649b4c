#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/Clock.h"
#include "common/MainThread.h"
#include "common/Thread.h"
#include "ipc/KZCustomApplication.h"
#include "ipc/KZMessages.h"

namespace guardian {

// Runs the main thread until the condition holds; false when it does not within the limit, which
// only bounds a failure.
inline bool RunMainThreadUntil(const std::function<bool()>& condition) {
  const std::int64_t giveUp = SystemTickCount() + 30'000;
  while (!condition()) {
    if (SystemTickCount() > giveUp) return false;
    CheckSynchronize(std::chrono::milliseconds(5));
  }
  return true;
}

// Threads that run the same function with their index, and that are joined together.
class TCrew {
 public:
  TCrew(int size, const std::function<void(int)>& work) {
    for (int index = 0; index < size; ++index) {
      FThreads.push_back(std::make_unique<TFunctionThread>("Crew", [=] { work(index); }));
      FThreads.back()->Start();
    }
  }

  [[nodiscard]] bool Finished() const {
    for (const auto& thread : FThreads) {
      if (!thread->Finished()) return false;
    }
    return true;
  }

 private:
  std::vector<std::unique_ptr<TFunctionThread>> FThreads;
};

// Keeps what it received, and does with it what the test says.
class TRecorder : public TKZMessageReceiverClass {
 public:
  void WndMethod(TKZMessage& message) override {
    Received.push_back(message.WParam);
    if (OnMessage) OnMessage(message);
  }

  void Post(std::int64_t number) { PostMessage(*this, 1124, number, 0, 0); }

  std::vector<std::int64_t> Received;
  std::function<void(TKZMessage&)> OnMessage;
};

}  // namespace guardian
