#include "common/DiagnosticMessage.h"

#include <sys/socket.h>

#include "common/Console.h"
#include "support/TestSupport.h"

namespace guardian {
namespace {

TEST(DiagnosticMessageTest, AdmitsAgainAfterAnHourOrAmongTooMany) {
  TMessageThrottle throttle;
  for (int i = 0; i < 256; ++i) EXPECT_TRUE(throttle.Admit(std::to_string(i), 1'000 + i));
  EXPECT_FALSE(throttle.Admit("0", 3'600'999));
  EXPECT_TRUE(throttle.Admit("0", 3'601'000));
  EXPECT_FALSE(throttle.Admit("1", 3'601'000));
  EXPECT_TRUE(throttle.Admit("256", 3'601'000)) << "the oldest is forgotten";
  EXPECT_FALSE(throttle.Admit("2", 3'601'000));
  EXPECT_TRUE(throttle.Admit("1", 3'601'000));
}

// Standard error is another file for a while.
class TStandardError {
 public:
  explicit TStandardError(int file) : FSaved(::dup(STDERR_FILENO)) { ::dup2(file, STDERR_FILENO); }
  ~TStandardError() { ::dup2(FSaved.Get(), STDERR_FILENO); }

 private:
  const TFileDescriptor FSaved;
};

TEST(ConsoleTest, NeverWaitsForAReaderOfStandardError) {
  for (const bool isSocket : {false, true}) {
    SCOPED_TRACE(isSocket);
    ::signal(SIGPIPE, isSocket ? SIG_DFL : SIG_IGN);
    std::array<int, 2> ends{};
    ASSERT_EQ(isSocket ? ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) : ::pipe(ends.data()),
              0);
    TFileDescriptor reading(ends[0]);
    const TFileDescriptor writing(ends[1]);
    const TStandardError error(writing.Get());
    ::fcntl(reading.Get(), F_SETFL, O_NONBLOCK);
    int whole = 0;
    while (whole < 10'000 && DebugOutput(std::string(9'999, 'x'))) ++whole;
    EXPECT_THAT(whole, testing::AllOf(testing::Gt(0), testing::Lt(10'000)));
    EXPECT_FALSE(!isSocket && DebugOutput("while it is full"));
    EXPECT_EQ(::fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK, 0) << "other programs share it";
    std::string text;
    EXPECT_EQ(ReadToEnd(reading.Get(), 100'000'000, text), EAGAIN);
    EXPECT_EQ(CountOf(text, "\n"), static_cast<int>(text.size() / 10'000));
    const bool cut = !text.ends_with('\n');
    EXPECT_TRUE(cut || isSocket) << "a socket takes such a line whole or not at all";
    const rlim_t before = SetLimit(RLIMIT_NOFILE, 3);
    EXPECT_TRUE(DebugOutput("next")) << "without a descriptor";
    SetLimit(RLIMIT_NOFILE, before);
    EXPECT_EQ(ReadToEnd(reading.Get(), 100, text), EAGAIN);
    EXPECT_EQ(text, cut ? "\nnext\n" : "next\n");
    reading.Close();
    EXPECT_FALSE(DebugOutput("nobody reads"));
  }
}

TEST(DiagnosticMessageTest, IsWrittenOnceToTheFirstPlaceWhereSomebodySeesIt) {
  TFakeClock clock;
  const auto write = [&](const std::string& text) {
    for (int i = 0; i < 2; ++i) {
      EXPECT_FALSE(Guarded("Test", clock, [&] { throw std::runtime_error(text); }));
    }
  };
  std::string systemLog;
  SetLastResort([&](std::string_view line) {
    systemLog.append(line).append("\n");
    write("of the writer");
    throw KZException("no system log either");
  });
  std::ignore = TErrorLogInFolder();
  testing::internal::CaptureStderr();
  write("no log");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Test Exception: no log\n");
  {
    const TFileDescriptor null(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    const TStandardError error(null.Get());
    write("after start");
    ::close(STDERR_FILENO);
    write("closed");
    SetLastResort({});
    write("nowhere");
  }
  EXPECT_EQ(systemLog, "Test Exception: after start\nTest Exception: closed\n");
  const TErrorLogInFolder log;
  write("a log");
  EXPECT_EQ(log.Text(), "2026-11-21 06:00:00 Test Exception: a log\n");
  FlushLogFile(clock);
  EXPECT_EQ(LastFlushTick(), clock.TickCount());
  EXPECT_TRUE(ErrorLog().Enabled());
  std::filesystem::remove(log.Folder().Path("error.log"));
  FlushLogFile(clock);
  EXPECT_FALSE(ErrorLog().Enabled() || log.Folder().Has("error.log")) << "deleted for good";
  EXPECT_TRUE(Guarded("Test", clock, [] {}));
}

TEST(ExceptionsTest, TellTheirClassAndMessageWhateverTheyAre) {
  EXPECT_EQ(ExceptionClassName(SoftException("text")), "SoftException");
  EXPECT_EQ(ExceptionClassName(std::runtime_error("")), "std::runtime_error");
  EXPECT_EQ(Demangled("no mangled name"), "no mangled name");
  EXPECT_EQ(ESystemError("open", "/a/b", ENOENT).Message(),
            "open /a/b: No such file or directory (errno 2)");
  EXPECT_EQ(ThrownMessage([] { throw std::out_of_range("range"); }), "range");
  EXPECT_EQ(ThrownMessage([] { throw 5; }), "unknown exception");
}

}  // namespace
}  // namespace guardian
