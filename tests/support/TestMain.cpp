#include <gtest/gtest.h>

#include <clocale>
#include <cstdio>
#include <cstring>

#include "common/MainThread.h"
#include "support/ChildProcess.h"

// "--child NAME ARG..." runs the registered child function instead of the tests.
int main(int argc, char** argv) {
  if (argc >= 3 && std::strcmp(argv[1], "--child") == 0) {
    return guardian::RunChildFunction(argv[2], argc - 3, argv + 3);
  }
  guardian::BindMainThread();
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
