// The Guardian as it is, but for a watchdog whose time runs faster: ten times, or as often as
// FAST_GUARDIAN_FACTOR says. Its wall clock begins FAST_GUARDIAN_BEHIND seconds late.
#include <csignal>
#include <cstdlib>

#include "common/Clock.h"
#include "common/Settings.h"
#include "guardian/GuardianMain.h"

namespace guardian {
namespace {

// Time that runs faster than the machine's by a whole factor, from the moment it is made.
// Threads: any.
class TFastClock final : public TClock {
 public:
  TFastClock(std::int64_t factor, std::int64_t behindSec)
      : FFactor(factor), FBehindMs(behindSec * 1000) {}

  TDateTime Now() const override { return SystemClock().Now() + Ahead(); }
  TDateTime UtcNow() const override { return SystemClock().UtcNow() + Ahead(); }
  std::int64_t TickCount() const override { return FBegan + Elapsed() * FFactor; }

  bool WaitUntil(TMutex& mutex, TCondition& condition, std::int64_t deadlineTick,
                 const std::function<bool()>& predicate) override KZ_REQUIRES(mutex) {
    // The first tick of the machine's clock at which the deadline has come.
    const std::int64_t realTick = FBegan + (deadlineTick - FBegan + FFactor - 1) / FFactor;
    return SystemClock().WaitUntil(mutex, condition, realTick, predicate);
  }

 private:
  std::int64_t Elapsed() const { return SystemTickCount() - FBegan; }
  TDateTime Ahead() const {
    return static_cast<double>(Elapsed() * (FFactor - 1) - FBehindMs) / 86'400'000.0;
  }

  const std::int64_t FFactor;
  const std::int64_t FBehindMs;
  const std::int64_t FBegan = SystemTickCount();
};

}  // namespace
}  // namespace guardian

int main(int argc, char** argv) {
  // Waits for who wants to see it from here on.
  if (std::getenv("FAST_GUARDIAN_WAITS") != nullptr) std::raise(SIGSTOP);
  const auto number = [](const char* name, int otherwise) {
    const char* value = std::getenv(name);
    return value == nullptr ? otherwise : std::atoi(value);
  };
  guardian::TFastClock clock(number("FAST_GUARDIAN_FACTOR", 10), number("FAST_GUARDIAN_BEHIND", 0));
  guardian::InitSettings(argc, argv);
  return guardian::GuardianMain(clock);
}
