#pragma once

#include <gtest/gtest.h>

#include "common/ErrorLog.h"
#include "support/TempFolder.h"

namespace guardian {

// An error log in a fresh folder, for one test.
class TErrorLogInFolder {
 public:
  TErrorLogInFolder() { EXPECT_TRUE(ErrorLog().Open(FFolder.Path("error.log"))); }
  ~TErrorLogInFolder() { ErrorLog().Close(); }

  [[nodiscard]] std::string Text() const { return FFolder.Read("error.log"); }
  [[nodiscard]] const TTempFolder& Folder() const { return FFolder; }

 private:
  TTempFolder FFolder;
};

}  // namespace guardian
