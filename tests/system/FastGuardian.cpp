// The Guardian as it is, but for a watchdog whose time runs faster: ten times, or as often as
// FAST_GUARDIAN_FACTOR says.
#include <cstdlib>

#include "common/Settings.h"
#include "guardian/GuardianMain.h"
#include "system/FastClock.h"

int main(int argc, char** argv) {
  const char* factor = std::getenv("FAST_GUARDIAN_FACTOR");
  guardian::TFastClock clock(factor == nullptr ? 10 : std::atoi(factor));
  guardian::InitSettings(argc, argv);
  return guardian::GuardianMain(clock);
}
