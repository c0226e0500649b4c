#include "common/NamedMutex.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "common/Console.h"
#include "support/ChildProcess.h"
#include "support/OpenDescriptors.h"
#include "support/Program.h"
#include "support/TempFolder.h"

namespace guardian {
namespace {

// Takes the mutex with the given name, if there is one, says how that went and stays.
int HoldMutex(const std::vector<std::string>& arguments) {
  constexpr unsigned kLongestStaySec = 60;
  TNamedMutex mutex;
  if (!arguments.empty()) mutex = TNamedMutex::Create(arguments[0]);
  PrintLine("error " + std::to_string(mutex.Error()));
  ::alarm(kLongestStaySec);
  ::pause();
  return 0;
}

const TRegisterChild kHoldMutex("hold-mutex", &HoldMutex);

class TNamedMutexTest : public testing::Test {
 protected:
  [[nodiscard]] int ErrorOfCreate() const { return TNamedMutex::Create(FName).Error(); }

  static bool Says(const TProgram& program, const std::string& line) {
    return Eventually([&] { return program.Output() == line + "\n"; });
  }

  const TTempFolder FFolder;
  const std::string FName = FFolder.Path("vellumark$mutex");
};

TEST_F(TNamedMutexTest, ExcludesASecondHolderHereAndElsewhere) {
  const mode_t mask = ::umask(0);
  TNamedMutex first = TNamedMutex::Create(FName);
  ::umask(mask);
  EXPECT_EQ(first.Error(), 0);
  EXPECT_TRUE(first.HasHandle());
  struct stat info {};
  ASSERT_EQ(::stat(FFolder.Path("vellumark$mutex.lock").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0666U);

  TNamedMutex second = TNamedMutex::Create(FName);
  EXPECT_EQ(second.Error(), 183);
  EXPECT_TRUE(second.HasHandle()) << "valid to close";
  second.Close();
  EXPECT_EQ(ErrorOfCreate(), 183) << "closing what holds nothing frees nothing";

  TProgram other({"/proc/self/exe", "--child", "hold-mutex", FName});
  EXPECT_TRUE(Says(other, "error 183"));
  first.Close();
  EXPECT_EQ(ErrorOfCreate(), 0);
  EXPECT_TRUE(FFolder.Has("vellumark$mutex.lock"));
}

TEST_F(TNamedMutexTest, IsReleasedByTheDeathOfItsHolderWhateverItsChildrenDo) {
  TNamedMutex mutex = TNamedMutex::Create(FName);
  TProgram child({"/proc/self/exe", "--child", "hold-mutex"});
  ASSERT_TRUE(Says(child, "error 0"));
  mutex.Close();
  TProgram holder({"/proc/self/exe", "--child", "hold-mutex", FName});
  ASSERT_TRUE(Says(holder, "error 0"));
  EXPECT_EQ(ErrorOfCreate(), 183);
  holder.Signal(SIGKILL);
  EXPECT_EQ(holder.Wait(), -SIGKILL);
  EXPECT_EQ(ErrorOfCreate(), 0);
}

TEST_F(TNamedMutexTest, RefusesWhatIsNoLockFileWithoutAHandle) {
  ASSERT_EQ(::mkfifo(FFolder.Path("pipe.lock").c_str(), 0600), 0);
  std::filesystem::create_directory(FFolder.Path("folder.lock"));
  FFolder.Write("target", "");
  std::filesystem::create_symlink(FFolder.Path("target"), FFolder.Path("link.lock"));
  const std::set<int> before = OpenDescriptors();
  const std::vector<std::pair<std::string, int>> cases = {
      {"missing/name", ENOENT}, {"pipe", EINVAL}, {"folder", EINVAL}, {"link", ELOOP}};
  for (const auto& [name, error] : cases) {
    const TNamedMutex mutex = TNamedMutex::Create(FFolder.Path(name));
    EXPECT_EQ(mutex.Error(), error) << name;
    EXPECT_FALSE(mutex.HasHandle()) << name;
    EXPECT_EQ(OpenDescriptors(), before) << name;
  }
}

}  // namespace
}  // namespace guardian
