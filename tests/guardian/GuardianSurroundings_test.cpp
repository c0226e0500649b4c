#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "common/Cancellation.h"
#include "common/Settings.h"
#include "guardian/FakeSurroundings.h"
#include "guardian/RunCommand.h"
#include "guardian/SystemLog.h"
#include "support/SettingsBackup.h"
#include "support/TempFolder.h"

namespace guardian {
namespace {

TEST(DaemonPathTest, IsFoundBesideTheGuardianInEveryLayout) {
  const std::map<std::string, std::string> daemons = {
      {"/usr/local/bin/VellumarkGuardian", "/usr/local/bin/VellumarkCL"},
      {"/share/.qpkg/VellumarkGuardian/VellumarkGuardian", "/share/.qpkg/VellumarkCL/VellumarkCL"},
      {"/opt/VellumarkGuardian/bin/VellumarkGuardian", "/opt/Vellumark/bin/VellumarkCL"},
      {"/a/VellumarkGuardian-1.50/VellumarkGuardian", "/a/VellumarkCL-1.50/VellumarkCL"},
      {"/opt/vellumarkguardian/guard", "/opt/vellumarkguardian/guard"},
      {"/x/VellumarkGuardian/VellumarkGuardian/VellumarkGuardian",
       "/x/Vellumark/VellumarkCL/VellumarkCL"},
  };
  for (const auto& [own, daemon] : daemons) EXPECT_EQ(DaemonPathBeside(own), daemon);
}

TEST(DaemonConfDirTest, FollowsTheLayoutOfTheBox) {
  const std::string store = "/volume2/@appstore/Vellumark/usr/bin/VellumarkGuardian";
  const std::string appData = "/volume2/@appdata/Vellumark";
  const std::string plugins = "/volume1/.@plugins/etc";
  const struct {
    std::string Own;
    std::set<std::string> Directories;
    std::string ConfIn;
    std::string Expected;
    bool IsAppData;
  } cases[] = {
      {kOwnPath, {appData}, "", "/etc", false},
      {kOwnPath, {plugins}, "", plugins, false},
      {kOwnPath, {plugins}, "/etc", "/etc", false},
      {store, {}, "", "/etc", false},
      {store, {appData}, "", appData, true},
      {store, {appData, plugins}, "", plugins, true},
      {store, {appData, plugins}, appData, appData, true},
  };
  for (const auto& [own, directories, confIn, expected, isAppData] : cases) {
    TFakeFileSystem files;
    files.Directories = directories;
    files.Files[confIn + "/VellumarkCL.conf"] = "";
    const TDaemonConfDir found = FindDaemonConfDir(own, files);
    EXPECT_EQ(found.Directory, expected) << confIn;
    EXPECT_EQ(found.IsAppData, isAppData) << confIn;
  }
}

TEST(RealFileSystemTest, TellsFilesFromFoldersAndSaysWhyItCannotRead) {
  const TTempFolder folder;
  folder.Write("file", "text");
  const TFileSystemView& files = RealFileSystem();
  EXPECT_TRUE(files.FileExists(folder.Path("file")));
  EXPECT_FALSE(files.FileExists(folder.Path()));
  EXPECT_FALSE(files.FileExists(folder.Path("file/below")));
  EXPECT_TRUE(files.DirectoryExists(folder.Path()));
  EXPECT_FALSE(files.DirectoryExists(folder.Path("file")));
  EXPECT_EQ(files.ReadText(folder.Path("file")), "text");
  EXPECT_THROW((void)files.ReadText(folder.Path("missing")), ESystemError);
  EXPECT_THROW((void)files.ReadText(folder.Path()), ESystemError);
  ASSERT_EQ(::mkfifo(folder.Path("pipe").c_str(), 0600), 0);
  EXPECT_EQ(files.ReadText(folder.Path("pipe")), "") << "a pipe without a writer does not block";
}

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
