#include "common/TextFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace guardian {
namespace {

int FlagsOf(TTextFileOpening opening) noexcept {
  switch (opening) {
    case TTextFileOpening::Append:
      return O_APPEND;
    case TTextFileOpening::AppendOrCreate:
      return O_APPEND | O_CREAT;
    case TTextFileOpening::Truncate:
      return O_CREAT | O_TRUNC;
    case TTextFileOpening::CreateNew:
      return O_CREAT | O_EXCL;
  }
  return O_APPEND;
}

// Gives the last byte of what was written up for a line feed. Does nothing when another writer has
// appended meanwhile: the text in front of that is not ours to cut.
void EndCutText(const TFileDescriptor& file) noexcept {
  const off_t end = ::lseek(file.Get(), 0, SEEK_CUR);
  struct stat info {};
  if (end <= 0 || ::fstat(file.Get(), &info) != 0 || info.st_size != end) return;
  if (::ftruncate(file.Get(), end - 1) != 0) return;
  [[maybe_unused]] const ssize_t written =
      RetryOnEintr([&] { return ::pwrite(file.Get(), "\n", 1, end - 1); });
}

}  // namespace

TFileDescriptor OpenTextFile(const char* name, TTextFileOpening opening) noexcept {
  // Non-blocking: nothing in the log's place can make the opening wait.
  const int flags = O_WRONLY | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW | O_NONBLOCK | FlagsOf(opening);
  TFileDescriptor file(
      RetryOnEintr([&] { return ::open(name, flags, S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH); }));
  if (file && !IsRegularFile(file)) {
    file.Close();
    errno = EINVAL;
  }
  return file;
}

int WriteText(const TFileDescriptor& file, std::string_view text) noexcept {
  const int error = WriteAll(file.Get(), text);
  if (error != 0) EndCutText(file);
  return error;
}

int WriteTextLine(const TFileDescriptor& file, std::string_view text) {
  std::string line;
  line.reserve(text.size() + 1);
  line.append(text).push_back('\n');
  return WriteText(file, line);
}

}  // namespace guardian
