#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "common/Cancellation.h"
#include "common/Settings.h"
#include "guardian/RunCommand.h"
#include "guardian/SystemLog.h"
#include "support/SettingsBackup.h"
#include "support/TempFolder.h"

namespace guardian {
namespace {

const std::string kNasty = "Path $(touch x) `id` \"quoted\" 'single' ; | & \\ \n%s -n";

// The tools are scripts that write down their arguments, each in brackets.
TEST(SystemLogTest, GivesTheFirstToolItsPlainArgumentsAlsoWhileTheProcessStops) {
  const TTempFolder folder;
  TCancellation stopping;
  const auto install = [&](const std::string& name, const std::string& ending) {
    folder.Write(name, "#!/bin/sh\nfor a in \"$@\"; do printf '[%s]' \"$a\"; done >> '" +
                           folder.Path("told") + "'\n" + ending);
    std::filesystem::permissions(folder.Path(name), std::filesystem::perms::owner_all);
  };
  const auto told = [&](TSystemLogKind kind) {
    std::filesystem::remove(folder.Path("told"));
    WriteSystemLog(kNasty, kind, stopping, {folder.Path("write_log"), folder.Path("synolog")});
    return folder.Read("told");
  };
  EXPECT_EQ(told(TSystemLogKind::Error), "") << "no tool is there";
  install("synolog", "");
  EXPECT_EQ(told(TSystemLogKind::Error), "[sys][err][0x11100000][" + kNasty + "]");
  EXPECT_EQ(told(TSystemLogKind::Warning), "[sys][warn][0x11100000][" + kNasty + "]");
  EXPECT_EQ(told(TSystemLogKind::Information), "[sys][info][0x11100000][" + kNasty + "]");
  install("write_log", "exec sleep 100");
  stopping.Cancel();
  EXPECT_EQ(told(TSystemLogKind::Information), "[" + kNasty + "][4]");
}

TEST(RunCommandTest, SaysWhyACommandDidNotEndByItself) {
  const TSettingsBackup settings;
  TCancellation stopping;
  const auto problem = [&](int timeoutSec) {
    return RunCommand("echo said; sleep 0.1", timeoutSec, stopping).Problem;
  };
  EXPECT_EQ(problem(60), "");
  EXPECT_EQ(RunCommand("echo said", 60, stopping).Output, "said\n");
  EXPECT_EQ(problem(0), "Ended after 0 seconds or for too much output: echo said; sleep 0.1");
  Settings().TempDirectory.Set("/missing");
  EXPECT_THAT(problem(60), testing::StartsWith("Error executing echo said; sleep 0.1 >"));
  stopping.Cancel();
  EXPECT_EQ(problem(60), "");
}

}  // namespace
}  // namespace guardian
