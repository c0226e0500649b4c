#pragma once

#include <cstdint>

#include "ipc/KZCustomApplication.h"
#include "ipc/KZUnixPipes.h"
#include "support/TestSupport.h"

namespace guardian {

// Messages and pipes under an application, as in the process.
class TUnitsTest : public testing::Test {
 protected:
  TUnitsTest() {
    StartMessages();
    StartPipes();
    SetPipeDirectory(FFolder.Path());
  }
  ~TUnitsTest() override {
    StopPipes();
    StopMessages();
    ResumeDelivery();
    SetMessageExceptionReporter({});
  }

  std::unique_ptr<TKZCustomApplication> FApplication = std::make_unique<TKZCustomApplication>();
  const TTempFolder FFolder;
};

// A thread that asks the main thread to run the function, and is at it when this returns.
inline TCrew AskMainThread(const std::function<void()>& function) {
  std::atomic<bool> asking = false;
  TCrew crew(1, [&asking, function](int) {
    asking = true;
    Synchronize(function);
  });
  while (!asking) SystemClock().Sleep(std::chrono::milliseconds(1));
  return crew;
}

// Keeps what it received, and does with it what the test says.
class TRecorder : public TKZMessageReceiverClass {
 public:
  void WndMethod(TKZMessage& message) override {
    EXPECT_TRUE(IsMainThread());
    Received.push_back(message.WParam);
    if (OnMessage) OnMessage(message);
  }

  void Post(std::int64_t number) { PostMessage(*this, 1124, number, 0, 0); }
  [[nodiscard]] bool Receives(std::size_t count) const {
    return Eventually([&] { return Received.size() >= count; });
  }

  std::vector<std::int64_t> Received;
  std::function<void(TKZMessage&)> OnMessage;
};

}  // namespace guardian
