#include "common/FileDescriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>

#include "common/Console.h"
#include "common/FileHandle.h"
#include "common/NamedMutex.h"
#include "support/ChildProcess.h"
#include "support/Crew.h"
#include "support/Eventually.h"
#include "support/FakeClock.h"
#include "support/OpenDescriptors.h"
#include "support/Program.h"
#include "support/TempFolder.h"
#include "support/ThrownMessage.h"

namespace guardian {
namespace {

struct TPipe {
  TPipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
    Read = TFileDescriptor(ends[0]);
    Write = TFileDescriptor(ends[1]);
  }
  TFileDescriptor Read;
  TFileDescriptor Write;
};

TEST(TFileDescriptorTest, ClosesWhatItOwnsOnce) {
  const std::set<int> before = OpenDescriptors();
  TPipe pipe;
  const int read = pipe.Read.Get();
  TFileDescriptor moved(std::move(pipe.Read));
  EXPECT_FALSE(pipe.Read);
  EXPECT_TRUE(OpenDescriptors().contains(read));
  moved = std::move(pipe.Write);
  EXPECT_FALSE(OpenDescriptors().contains(read)) << "assignment closes the old one";
  const int write = moved.Release();
  moved.Close();
  EXPECT_TRUE(OpenDescriptors().contains(write)) << "released";
  TFileDescriptor{write}.Close();
  EXPECT_EQ(OpenDescriptors(), before);
}

std::atomic<int> interruptions = 0;

// The writer's calls are short, since a pipe holds less, and interrupted by signals.
TEST(TFileDescriptorTest, WritesAndReadsAllThroughShortAndInterruptedCalls) {
  struct sigaction previous {};
  struct sigaction counting {};
  counting.sa_handler = [](int) { ++interruptions; };
  ASSERT_EQ(::sigaction(SIGUSR1, &counting, &previous), 0);
  TPipe pipe;
  std::string sent(1'000'000, 'x');
  for (std::size_t i = 0; i < sent.size(); i += 1000) sent[i] = static_cast<char>('a' + i % 26);
  std::atomic<pthread_t> writer = 0;
  int error = -1;
  TCrew crew(1, [&](int) {
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    writer = pthread_self();
    error = WriteAll(pipe.Write.Get(), sent);
    pipe.Write.Close();
  });
  ASSERT_TRUE(Eventually([&] { return writer != 0; }));
  for (int i = 1; i <= 5; ++i) {
    pthread_kill(writer, SIGUSR1);
    ASSERT_TRUE(Eventually([&] { return interruptions >= i; }));
  }
  std::string received = "is replaced";
  EXPECT_EQ(ReadToEnd(pipe.Read.Get(), sent.size() + 1, received), 0);
  crew.Join();
  ::sigaction(SIGUSR1, &previous, nullptr);
  EXPECT_EQ(error, 0);
  EXPECT_TRUE(received == sent);
}

TEST(TFileDescriptorTest, ReadsNoMoreThanItIsAllowedAndTellsErrors) {
  const TTempFolder folder;
  folder.Write("file", "0123456789");
  const TFileDescriptor file(::open(folder.Path("file").c_str(), O_RDONLY | O_CLOEXEC));
  std::string text;
  for (const char* expected : {"0123", "4567", "89", ""}) {
    EXPECT_EQ(ReadToEnd(file.Get(), 4, text), 0);
    EXPECT_EQ(text, expected);
  }
  EXPECT_EQ(WriteAll(file.Get(), "x"), EBADF) << "open for reading only";
  const TFileDescriptor full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
  EXPECT_EQ(WriteAll(full.Get(), "x"), ENOSPC);
  const TFileDescriptor isFolder(::open(folder.Path().c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(ReadToEnd(isFolder.Get(), 6, text), EISDIR);
}

TEST(FileHandleTest, ClosesOnceAndRefusesWhatIsNoFileObject) {
  const std::set<int> before = OpenDescriptors();
  const auto open = [] { return TFileDescriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC)); };
  const TFileHandle handle = AddFileObject(open());
  EXPECT_GT(handle, 1);
  EXPECT_NE(OpenDescriptors(), before);
  CloseHandle(handle);
  EXPECT_EQ(OpenDescriptors(), before);
  EXPECT_EQ(AddFileObject(open()), handle + 1) << "no number is given twice";
  for (const TFileHandle valid : {TFileHandle{0}, TFileHandle{1}, handle + 1}) CloseHandle(valid);
  for (const TFileHandle bad : {handle, handle + 2, TFileHandle{-1}}) {
    EXPECT_EQ(ThrownMessage([&] { CloseHandle(bad); }), "Invalid handle passed to CloseHandle");
  }
  EXPECT_THROW(static_cast<void>(AddFileObject(TFileDescriptor())), KZException);
}

TEST(FileHandleTest, UnlocksAtOnceAndWaitsASecondForABorrower) {
  const TTempFolder folder;
  const auto open = [&] {
    return TFileDescriptor(::open(folder.Path("f").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  };
  TFakeClock clock;
  TFileDescriptor file = open();
  ASSERT_EQ(::flock(file.Get(), LOCK_EX | LOCK_NB), 0);
  const TFileHandle handle = AddFileObject(std::move(file));
  auto borrowed = BorrowFileObject(handle);
  const std::int64_t start = clock.TickCount();
  const TCrew closer(1, [&](int) { CloseHandle(handle, clock); });
  EXPECT_TRUE(Eventually([&] { return ::flock(open().Get(), LOCK_EX | LOCK_NB) == 0; }));
  EXPECT_TRUE(Eventually([&] {
    clock.Advance(std::chrono::milliseconds(50));
    return closer.Finished();
  }));
  EXPECT_GE(clock.TickCount() - start, 1000);
  EXPECT_EQ(BorrowFileObject(handle), nullptr);
  EXPECT_EQ(OpenDescriptors().count(borrowed->Get()), 1U);
}

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
