#include <gtest/gtest.h>

#include <string_view>

#include "common/MainThread.h"
#include "support/ChildProcess.h"

// "--child NAME ARG..." runs the registered child function instead of the tests.
int main(int argc, char** argv) {
  if (argc >= 3 && std::string_view(argv[1]) == "--child") {
    return guardian::ChildFunctions().at(argv[2])({argv + 3, argv + argc});
  }
  guardian::BindMainThread();
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
