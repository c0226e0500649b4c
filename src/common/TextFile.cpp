#include "common/TextFile.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace guardian {
namespace {

int FlagsOf(TTextFileOpening opening) {
  switch (opening) {
    case TTextFileOpening::Append:
      return O_APPEND;
    case TTextFileOpening::AppendOrCreate:
      return O_APPEND | O_CREAT;
    case TTextFileOpening::Truncate:
      return O_CREAT | O_TRUNC;
    case TTextFileOpening::CreateNew:
      return O_CREAT | O_EXCL | O_NOFOLLOW;
  }
  return O_APPEND;
}

}  // namespace

TFileDescriptor OpenTextFile(const std::string& name, TTextFileOpening opening) {
  const int flags = O_WRONLY | O_CLOEXEC | O_NOCTTY | FlagsOf(opening);
  return TFileDescriptor(RetryOnEintr(
      [&] { return ::open(name.c_str(), flags, S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH); }));
}

int WriteTextLine(const TFileDescriptor& file, std::string_view text) {
  std::string line;
  line.reserve(text.size() + 1);
  line.append(text).push_back('\n');
  return WriteAll(file.Get(), line);
}

}  // namespace guardian
