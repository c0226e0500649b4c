#include "common/FileDescriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace guardian {

void TFileDescriptor::Close() noexcept {
  if (FDescriptor >= 0) ::close(Release());
}

// Does not ask for the times: a file system that has told them takes longer for the next write.
bool IsRegularFile(const TFileDescriptor& file) noexcept {
  struct statx info {};
  return ::statx(file.Get(), "", AT_EMPTY_PATH, STATX_TYPE, &info) == 0 && S_ISREG(info.stx_mode);
}

int WriteAll(int descriptor, std::string_view bytes) noexcept {
  while (!bytes.empty()) {
    const ssize_t written =
        RetryOnEintr([&] { return ::write(descriptor, bytes.data(), bytes.size()); });
    if (written < 0) return errno;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

int ReadToEnd(int descriptor, std::size_t maxBytes, std::string& text) {
  constexpr std::size_t kChunk = 8192;  // Most outputs are short.
  text.clear();
  while (text.size() < maxBytes) {
    const std::size_t wanted = std::min(kChunk, maxBytes - text.size());
    const std::size_t before = text.size();
    text.resize(before + wanted);
    const ssize_t got =
        RetryOnEintr([&] { return ::read(descriptor, text.data() + before, wanted); });
    const int error = got < 0 ? errno : 0;
    text.resize(before + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    if (got <= 0) return error;
  }
  return 0;
}

}  // namespace guardian
