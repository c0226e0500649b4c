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
#include "support/Crew.h"
#include "support/Eventually.h"

namespace guardian {

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
