#include "common/FileDescriptor.h"

#include <sys/file.h>
#include <sys/stat.h>

#include "common/FileHandle.h"
#include "common/NamedMutex.h"
#include "common/TextFile.h"
#include "support/TestSupport.h"

namespace guardian {
namespace {

TFileDescriptor Opened(const std::string& file, int flags) {
  return TFileDescriptor(::open(file.c_str(), flags | O_CLOEXEC, 0600));
}

std::atomic<int> interruptions = 0;

// The writer's calls are short, since a pipe holds less, and interrupted by signals.
TEST(TFileDescriptorTest, WritesAndReadsAllThroughShortAndInterruptedCalls) {
  struct sigaction counting {};
  counting.sa_handler = [](int) { ++interruptions; };
  ASSERT_EQ(::sigaction(SIGFPE, &counting, nullptr), 0);  // Threads block all but the fatal ones.
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
  const TFileDescriptor reading(ends[0]);
  TFileDescriptor writing(ends[1]);
  std::string sent(1'000'000, 'x');
  for (std::size_t i = 0; i < sent.size(); i += 1000) sent[i] = static_cast<char>('a' + i % 26);
  std::atomic<pthread_t> writer = 0;
  int error = -1;
  TCrew crew(1, [&](int) {
    writer = pthread_self();
    error = WriteAll(writing.Get(), sent);
    writing.Close();
  });
  ASSERT_TRUE(Eventually([&] { return writer != 0; }));
  for (int i = 1; i <= 5; ++i) {
    pthread_kill(writer, SIGFPE);
    ASSERT_TRUE(Eventually([&] { return interruptions >= i; }));
  }
  std::string received = "is replaced";
  EXPECT_EQ(ReadToEnd(reading.Get(), sent.size() + 1, received), 0);
  crew.Join();
  ::signal(SIGFPE, SIG_DFL);
  EXPECT_EQ(error, 0);
  EXPECT_TRUE(received == sent);
}

TEST(TextFileTest, OpensRegularFilesOnlyAndEndsWhatAFullDiskCuts) {
  const TTempFolder folder;
  folder.Write("file", "of others");
  ASSERT_EQ(::mkfifo(folder.Path("pipe").c_str(), 0600), 0);
  const TFileDescriptor reader = Opened(folder.Path("pipe"), O_RDONLY | O_NONBLOCK);
  std::filesystem::create_symlink(folder.Path("file"), folder.Path("link"));
  using enum TTextFileOpening;
  for (const TTextFileOpening opening : {Append, AppendOrCreate, Truncate, CreateNew}) {
    for (const std::string& name :
         {folder.Path("pipe"), folder.Path("link"), folder.Path(), std::string("/dev/full")}) {
      EXPECT_FALSE(OpenTextFile(name, opening)) << name;
    }
  }
  EXPECT_FALSE(OpenTextFile(folder.Path("file"), CreateNew));
  EXPECT_EQ(folder.Read("file"), "of others");

  // A size limit cuts as a full disk does.
  ::signal(SIGXFSZ, SIG_IGN);
  for (const TTextFileOpening opening : {AppendOrCreate, Truncate}) {
    const TFileDescriptor file = OpenTextFile(folder.Path("log"), opening);
    EXPECT_EQ(::fcntl(file.Get(), F_GETFD), FD_CLOEXEC);
    const rlim_t before = SetLimit(RLIMIT_FSIZE, 10);
    EXPECT_EQ(WriteTextLine(file, "one"), 0);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(WriteTextLine(file, "is too long"), EFBIG);
    SetLimit(RLIMIT_FSIZE, before);
    EXPECT_EQ(WriteTextLine(file, "two"), 0);
    EXPECT_EQ(folder.Read("log"), "one\nis to\ntwo\n");
  }
  ::signal(SIGXFSZ, SIG_DFL);
}

TEST(FileHandleTest, ClosesAFileOnce) {
  const TTempFolder folder;
  const TFileHandle handle = AddFileObject(Opened(folder.Path("lock"), O_RDONLY | O_CREAT));
  const auto borrowed = BorrowFileObject(handle);
  ASSERT_EQ(::flock(borrowed->Get(), LOCK_EX), 0);
  const std::int64_t start = SystemTickCount();
  CloseHandle(handle);
  EXPECT_GE(SystemTickCount() - start, 1'000) << "the borrower is waited for";
  EXPECT_EQ(::flock(Opened(folder.Path("lock"), O_RDONLY).Get(), LOCK_EX | LOCK_NB), 0)
      << "the borrower keeps the file, but not its lock";
  EXPECT_EQ(ThrownMessage([&] { CloseHandle(handle); }), "Invalid handle passed to CloseHandle");
  for (const TFileHandle none : {0, 1}) EXPECT_NO_THROW(CloseHandle(none));
}

TEST(TNamedMutexTest, ExcludesASecondHolder) {
  const TTempFolder folder;
  const std::string name = folder.Path("vellumark$mutex");
  TNamedMutex first = TNamedMutex::Create(name);
  EXPECT_EQ(first.Error(), 0);
  TNamedMutex second = TNamedMutex::Create(name);
  EXPECT_EQ(second.Error(), 183);
  EXPECT_TRUE(second.HasHandle()) << "valid to close";
  second.Close();
  EXPECT_EQ(TNamedMutex::Create(name).Error(), 183) << "closing what holds nothing frees nothing";
  first.Close();
  first = TNamedMutex::Create(name);
  EXPECT_EQ(first.Error(), 0);
  first = TNamedMutex();
  EXPECT_EQ(TNamedMutex::Create(name).Error(), 0) << "an assignment gives it back";
  EXPECT_TRUE(folder.Has("vellumark$mutex.lock"));
}

TEST(TNamedMutexTest, RefusesWhatIsNoLockFileWithoutAHandle) {
  const TTempFolder folder;
  ASSERT_EQ(::mkfifo(folder.Path("pipe.lock").c_str(), 0600), 0);
  std::filesystem::create_directory(folder.Path("folder.lock"));
  folder.Write("target", "");
  std::filesystem::create_symlink(folder.Path("target"), folder.Path("link.lock"));
  const std::set<int> before = OpenDescriptors();
  const std::vector<std::pair<std::string, int>> cases = {
      {"missing/name", ENOENT}, {"pipe", EINVAL}, {"folder", EINVAL}, {"link", ELOOP}};
  for (const auto& [name, error] : cases) {
    const TNamedMutex mutex = TNamedMutex::Create(folder.Path(name));
    EXPECT_EQ(mutex.Error(), error) << name;
    EXPECT_FALSE(mutex.HasHandle()) << name;
    EXPECT_EQ(OpenDescriptors(), before) << name;
  }
}

}  // namespace
}  // namespace guardian
