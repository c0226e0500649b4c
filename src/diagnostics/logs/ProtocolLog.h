#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

#include "common/SharedText.h"

namespace guardian {

// The protocol log: an optional text log of Internet-protocol traffic. Each thread has a file of
// its own, so that threads never interleave in one file. The file is closed at the thread's end.
//
// For other programs of the maker, which open such logs; the Guardian never does. Its exception
// reports go to a protocol log as well when there is one.
// Threads: any; each works on its own file. A thread's calls do nothing once its thread-local
// objects are being destroyed.

// What holds for the protocol logs of all threads.
// Owner: process-wide, see ProtocolLogSettings(); the code that enables the logging sets it.
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

// Sets the base name of the calling thread's log.
void SetProtocolLogBaseName(std::string baseName);

// Makes the calling thread's file, unless the thread has tried before. Returns whether the file is
// usable: open, and without a failure since the last call. A failure is written to the error log.
// Throws std::bad_alloc only.
[[nodiscard]] bool OpenProtocolLogForThread(TProtocolLogOpening opening);

// Makes the named file the calling thread's log and writes the command line as its first line.
// Returns whether that worked, and switches protocol logging for all threads on or off accordingly.
bool OpenProtocolLogNamed(const std::string& name);

// Whether the calling thread's log is open.
[[nodiscard]] bool ProtocolLogIsOpen() noexcept;

// Appends a line to the calling thread's log; does nothing when it is not open.
void WriteProtocolLogLine(std::string_view text);

}  // namespace guardian
