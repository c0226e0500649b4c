#include "guardian/DaemonLookups.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "guardian/FakeSurroundings.h"
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

}  // namespace
}  // namespace guardian
