#include "system/EscalationFixture.h"

namespace guardian {
namespace {

// The product's own executable, on its own time.
class RealTimeEscalationTest : public EscalationTest {
 protected:
  RealTimeEscalationTest() : EscalationTest(GUARDIAN_EXECUTABLE) {}
};

TEST_F(RealTimeEscalationTest, TakesAMinuteToTheStopAndFourTicksToTheKill) {
  ExpectFullEscalation(std::chrono::seconds(150));
}

}  // namespace
}  // namespace guardian
