#include "simulator/EventLog.h"

#include <fcntl.h>

#include <exception>
#include <string>

#include "common/Clock.h"
#include "common/FileDescriptor.h"

namespace guardian {

void LogEvent(const THome& home, std::string_view text) noexcept try {
  const std::string line =
      DateTimeToStr(SystemClock().Now()).append(": ").append(text).append("\n");
  const TFileDescriptor file(RetryOnEintr([&] {
    return ::open(home.LogFile().c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  }));
  if (file) [[maybe_unused]]
    const int lost = WriteAll(file.Get(), line);
} catch (const std::exception&) {
  // Out of memory: the line is lost, as it is without a log folder.
}

}  // namespace guardian
