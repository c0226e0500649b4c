#include "common/FileDescriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <array>

#include "common/Cancellation.h"
#include "common/Thread.h"
#include "support/TempFolder.h"

namespace guardian {
namespace {

bool IsOpen(int descriptor) { return ::fcntl(descriptor, F_GETFD) != -1; }

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
  TPipe pipe;
  const int read = pipe.Read.Get();
  const int write = pipe.Write.Get();
  TFileDescriptor moved(std::move(pipe.Read));
  EXPECT_FALSE(pipe.Read);
  EXPECT_TRUE(IsOpen(read));
  moved = std::move(pipe.Write);
  EXPECT_FALSE(IsOpen(read)) << "assignment closes the old one";
  EXPECT_EQ(moved.Release(), write);
  moved.Close();
  EXPECT_TRUE(IsOpen(write)) << "released";
  ::close(write);
}

TEST(TFileDescriptorTest, WritesAndReadsMoreThanAPipeHolds) {
  TPipe pipe;
  std::string sent(1'000'000, 'x');
  for (std::size_t i = 0; i < sent.size(); i += 1000) sent[i] = static_cast<char>('a' + i % 26);
  int error = -1;
  TFunctionThread writer("Writer", [&] {
    error = WriteAll(pipe.Write.Get(), sent);
    pipe.Write.Close();
  });
  writer.Start();
  std::string received = "is replaced";
  EXPECT_EQ(ReadToEnd(pipe.Read.Get(), sent.size() + 1, received), 0);
  writer.Join();
  EXPECT_EQ(error, 0);
  EXPECT_TRUE(received == sent);
}

TEST(TFileDescriptorTest, ReadsNoMoreThanItIsAllowedAndTellsErrors) {
  const TTempFolder folder;
  folder.Write("file", "0123456789");
  const TFileDescriptor file(::open(folder.Path("file").c_str(), O_RDONLY | O_CLOEXEC));
  std::string text;
  EXPECT_EQ(ReadToEnd(file.Get(), 4, text), 0);
  EXPECT_EQ(text, "0123");
  EXPECT_EQ(ReadToEnd(file.Get(), 6, text), 0);
  EXPECT_EQ(text, "456789");
  EXPECT_EQ(ReadToEnd(file.Get(), 6, text), 0);
  EXPECT_EQ(text, "");

  EXPECT_EQ(WriteAll(file.Get(), "x"), EBADF) << "open for reading only";
  const TFileDescriptor isFolder(::open(folder.Path().c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(ReadToEnd(isFolder.Get(), 6, text), EISDIR);
}

TEST(TCancellationTest, EndsAPollInAnotherThreadAndStaysReadable) {
  TCancellation cancellation;
  EXPECT_FALSE(cancellation.IsCancelled());
  const auto poll = [&](int timeoutMs) {
    pollfd state{.fd = cancellation.Descriptor(), .events = POLLIN, .revents = 0};
    return ::poll(&state, 1, timeoutMs);
  };
  EXPECT_EQ(poll(0), 0);
  int polled = 0;
  TFunctionThread waiter("Waiter", [&] { polled = poll(30'000); });
  waiter.Start();
  cancellation.Cancel();
  cancellation.Cancel();
  waiter.Join();
  EXPECT_EQ(polled, 1);
  EXPECT_EQ(poll(0), 1);
  EXPECT_TRUE(cancellation.IsCancelled());
}

}  // namespace
}  // namespace guardian
