#include <clocale>

#include "common/Settings.h"
#include "guardian/GuardianMain.h"

int main(int argc, char** argv) {
  std::setlocale(LC_ALL, "");
  guardian::InitSettings(argc, argv);
  guardian::GuardianMain();
  return 0;
}
