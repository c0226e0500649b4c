#include "guardian/DaemonLookups.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "guardian/FakeFileSystem.h"
#include "support/TempFolder.h"

namespace guardian {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(DaemonPathTest, IsFoundBesideTheGuardianInEveryLayout) {
  struct TCase {
    const char* Own;
    const char* Daemon;
  };
  const std::vector<TCase> cases = {
      {"/usr/local/bin/VellumarkGuardian", "/usr/local/bin/VellumarkCL"},
      {"/share/.qpkg/VellumarkGuardian/VellumarkGuardian", "/share/.qpkg/VellumarkCL/VellumarkCL"},
      {"/opt/VellumarkGuardian/VellumarkGuardian", "/opt/Vellumark/VellumarkCL"},
      {"/opt/VellumarkGuardian/bin/VellumarkGuardian", "/opt/Vellumark/bin/VellumarkCL"},
      {"/a/VellumarkGuardian-1.50/VellumarkGuardian", "/a/VellumarkCL-1.50/VellumarkCL"},
      {"/opt/vellumarkguardian/guard", "/opt/vellumarkguardian/guard"},
      {"/x/VellumarkGuardian/VellumarkGuardian/VellumarkGuardian",
       "/x/Vellumark/VellumarkCL/VellumarkCL"},
  };
  for (const TCase& c : cases) EXPECT_EQ(DaemonPathBeside(c.Own), c.Daemon) << c.Own;
}

constexpr const char* kAppStorePath = "/volume2/@appstore/Vellumark/usr/bin/VellumarkGuardian";

TEST(DaemonConfDirTest, FollowsTheLayoutOfTheBox) {
  struct TCase {
    const char* Name;
    const char* Own;
    std::vector<std::string> Directories;
    std::vector<std::string> Files;
    const char* Expected;
    bool IsAppData;
  };
  const std::string appData = "/volume2/@appdata/Vellumark";
  const std::string plugins = "/volume1/.@plugins/etc";
  const std::vector<TCase> cases = {
      {"plain", "/usr/bin/VellumarkGuardian", {}, {}, "/etc", false},
      {"plugins", "/usr/bin/VellumarkGuardian", {plugins}, {}, "/volume1/.@plugins/etc", false},
      {"conf in /etc wins over plugins",
       "/usr/bin/VellumarkGuardian",
       {plugins},
       {"/etc/VellumarkCL.conf"},
       "/etc",
       false},
      {"app store", kAppStorePath, {appData}, {}, "/volume2/@appdata/Vellumark", true},
      {"app store without data folder", kAppStorePath, {}, {}, "/etc", false},
      {"app data without conf falls to plugins",
       kAppStorePath,
       {appData, plugins},
       {},
       "/volume1/.@plugins/etc",
       true},
      {"app data with conf",
       kAppStorePath,
       {appData, plugins},
       {appData + "/VellumarkCL.conf"},
       "/volume2/@appdata/Vellumark",
       true},
  };
  for (const TCase& c : cases) {
    SCOPED_TRACE(c.Name);
    TFakeFileSystem files;
    files.Directories.insert(c.Directories.begin(), c.Directories.end());
    for (const std::string& file : c.Files) files.Files[file] = "";
    const TDaemonConfDir found = FindDaemonConfDir(c.Own, files);
    EXPECT_EQ(found.Directory, c.Expected);
    EXPECT_EQ(found.IsAppData, c.IsAppData);
  }
}

TEST(DaemonConfTest, TakesExactDaemonLinesUntrimmed) {
  EXPECT_THAT(DaemonPathsInConf("daemon=/a\n#x\ndaemon= /b c \n"), ElementsAre("/a", " /b c "));
  EXPECT_THAT(DaemonPathsInConf(" daemon=/a\nDaemon=/b\ndaemon:/c\nxdaemon=/d"), IsEmpty());
  EXPECT_THAT(DaemonPathsInConf("daemon=/last line without end"),
              ElementsAre("/last line without end"));
  EXPECT_THAT(DaemonPathsInConf("daemon=/a\r\ndaemon=\r\n"), ElementsAre("/a", ""));
  EXPECT_THAT(DaemonPathsInConf(std::string("\0\xff\n\0daemon=/x\n", 13)), IsEmpty());
}

TEST(DaemonPathsTest, TakesTheLastLineOfEachKindUntrimmed) {
  const TDaemonPaths paths =
      ParseDaemonPaths("Hello\nTMP=/t\nMUTEX=/m \r\nLOGS=\n tmp=/x\nTMP=/t2\nLOGS=/l=1");
  EXPECT_EQ(paths.Temp, "/t2");
  EXPECT_EQ(paths.Mutex, "/m \r");
  EXPECT_EQ(paths.Logs, "/l=1");
  const TDaemonPaths none = ParseDaemonPaths("sh: 1: not found\nmutex=/m\n");
  EXPECT_FALSE(none.Temp || none.Mutex || none.Logs);
}

TEST(RealFileSystemTest, TellsFilesFromFoldersAndSaysWhyItCannotRead) {
  const TTempFolder folder;
  folder.Write("file", "text");
  const TFileSystemView& files = RealFileSystem();
  EXPECT_TRUE(files.FileExists(folder.Path("file")));
  EXPECT_FALSE(files.FileExists(folder.Path()));
  EXPECT_TRUE(files.DirectoryExists(folder.Path()));
  EXPECT_FALSE(files.DirectoryExists(folder.Path("file")));
  EXPECT_EQ(files.ReadText(folder.Path("file")), "text");
  EXPECT_THROW((void)files.ReadText(folder.Path("missing")), ESystemError);
  EXPECT_THROW((void)files.ReadText(folder.Path()), ESystemError);
  ASSERT_EQ(::mkfifo(folder.Path("pipe").c_str(), 0600), 0);
  EXPECT_EQ(files.ReadText(folder.Path("pipe")), "");
}

}  // namespace
}  // namespace guardian
