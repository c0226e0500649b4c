#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

#include "common/SharedText.h"

namespace guardian {

// The protocol log: an optional text log of Internet-protocol traffic, a file of its own for each
// thread, so that threads never interleave in one file. The file is closed at the thread's end.
// Threads: any; each works on its own file. A thread's calls do nothing once its thread-local
// objects are being destroyed.

// Owner: process-wide, see ProtocolLogSettings(); set by the code that enables the logging.
// Threads: texts are replaced whole and read by any thread; the rest are independent atomics.
struct TProtocolLogSettings {
  TSharedText FolderPrefix;                    // Put in front of the base name as it stands.
  TSharedText FileName;                        // The file that OpenProtocolLogNamed used last.
  std::atomic<bool> Enabled = false;           // For all threads.
  std::atomic<std::uint32_t> ThreadCount = 0;  // Numbers the files.
};

// The one object; made at first use, never freed.
[[nodiscard]] TProtocolLogSettings& ProtocolLogSettings();

enum class TProtocolLogOpening {
  WhenEnabled,  // Only when protocol logging is on for all threads.
  Forced,
};

// The base name of the calling thread's log.
void SetProtocolLogBaseName(std::string baseName);

// Makes the calling thread's file, unless the thread has tried before, and returns whether it is
// usable: open, and without a failure since the last call. Such a failure is written to the error
// log. Throws std::bad_alloc only.
[[nodiscard]] bool OpenProtocolLogForThread(TProtocolLogOpening opening);

// Makes the named file the calling thread's log, begins it with the command line, and switches
// protocol logging for all threads on or off with the success, which it returns.
bool OpenProtocolLogNamed(const std::string& name);

// Whether the calling thread's log is open.
[[nodiscard]] bool ProtocolLogIsOpen() noexcept;

// Appends a line to the calling thread's log; does nothing when it is not open.
void WriteProtocolLogLine(std::string_view text);

}  // namespace guardian
