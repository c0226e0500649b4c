#include "guardian/SystemLog.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "common/Cancellation.h"
#include "common/Clock.h"
#include "support/TempFolder.h"

namespace guardian {
namespace {

constexpr const char* kNasty = "Path $(touch x) `id` \"quoted\" 'single' ; | & \\ \n%s -n";

// The tools are scripts that write down their arguments, each in brackets.
class SystemLogTest : public testing::Test {
 protected:
  void InstallTool(const std::string& name, const std::string& ending = "") const {
    const std::string path = FFolder.Path(name);
    FFolder.Write(name, "#!/bin/sh\nfor a in \"$@\"; do printf '[%s]' \"$a\"; done >> '" +
                            FFolder.Path("told") + "'\n" + ending);
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
  }
  void Write(TSystemLogKind kind) const {
    WriteSystemLog(kNasty, kind, FStopping,
                   {.WriteLog = FFolder.Path("write_log"), .SynologSet = FFolder.Path("synolog")});
  }
  std::string Told() const { return FFolder.Read("told"); }

  const TTempFolder FFolder;
  TCancellation FStopping;
};

TEST_F(SystemLogTest, GivesEachToolItsPlainArguments) {
  InstallTool("synolog");
  Write(TSystemLogKind::Error);
  Write(TSystemLogKind::Warning);
  Write(TSystemLogKind::Information);
  const auto synolog = [](const std::string& kind) {
    return "[sys][" + kind + "][0x11100000][" + kNasty + "]";
  };
  EXPECT_EQ(Told(), synolog("err") + synolog("warn") + synolog("info"));

  std::filesystem::remove(FFolder.Path("told"));
  InstallTool("write_log");
  Write(TSystemLogKind::Error);
  Write(TSystemLogKind::Warning);
  Write(TSystemLogKind::Information);
  const std::string text = std::string("[") + kNasty + "]";
  EXPECT_EQ(Told(), text + "[1]" + text + "[2]" + text + "[4]");
}

TEST_F(SystemLogTest, TellsTheToolAlsoWhileTheProcessStopsAndWaitsNoLonger) {
  InstallTool("write_log", "exec sleep 100\n");
  FStopping.Cancel();
  const std::int64_t before = SystemTickCount();
  Write(TSystemLogKind::Information);
  RecordProperty("took_ms", std::to_string(SystemTickCount() - before));
  EXPECT_EQ(Told(), std::string("[") + kNasty + "][4]");
}

}  // namespace
}  // namespace guardian
