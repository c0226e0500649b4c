#include <clocale>

#include "common/Settings.h"
#include "guardian/GuardianMain.h"

int main(int argc, char** argv) {
  // Dates and the code page as the user has them; numbers and system texts stay as programs and
  // our own code read them.
  std::setlocale(LC_CTYPE, "");
  std::setlocale(LC_TIME, "");
  guardian::InitSettings(argc, argv);
  return guardian::GuardianMain();
}
