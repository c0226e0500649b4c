#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "simulator/Home.h"

namespace guardian {

// What the stand-in can be told to do wrong. A new fault gets its word in Faults.cpp; the command
// or the daemon that it concerns looks for it.
enum class TFault {
  IgnoreStop,   // "ignore-stop": the stop command changes nothing.
  IgnoreTerm,   // "ignore-term": SIGTERM, and so the stop command too, changes nothing.
  HangStop,     // "hang-stop": the stop command hangs.
  HangPaths,    // "hang-paths": the paths command hangs.
  NoMutexPath,  // "no-mutex-path": the paths command leaves the MUTEX= line out.
  PathsFlood,   // "paths-flood": the paths command prints 100 MB ahead of its lines.
  StartFails,   // "start-fails": the start command fails.
  FreezePulse,  // "freeze-pulse": the pulse stays as it is.
  DropMutex,    // "drop-mutex": the scheduler mutex is free.
  ClosePipe,    // "close-pipe": the scheduler pipe is gone.
  MutePipe,     // "mute-pipe": the pipe is there, but no status record comes.
  Garbage,      // "garbage": the pipe delivers bytes that are no records.
  Crash,        // "crash": the daemon removes the word from the file and crashes.
  KeepOpen,     // "keep-open": the descriptors it was started with stay open.
};

// The faults that are ordered at one moment.
struct TFaults {
  std::vector<TFault> Ordered;            // In the order of the file.
  std::vector<std::string> UnknownWords;  // The other words in the file.

  [[nodiscard]] bool Has(TFault fault) const noexcept;
  [[nodiscard]] bool HasUnknown(std::string_view word) const noexcept;
};

// The word that orders the fault.
[[nodiscard]] std::string_view FaultWord(TFault fault) noexcept;

// The faults that the text orders, one word on each line. Ignores blanks around a word, empty lines
// and lines that begin with "#".
[[nodiscard]] TFaults ParseFaults(std::string_view text);

// The faults that the first 64 KiB of the home's file order now; none when it cannot be read.
[[nodiscard]] TFaults ReadFaults(const THome& home);

// Adds the words that the home's file does not hold yet. Throws ESystemError.
void OrderFaults(const THome& home, const std::vector<std::string>& words);

// Removes the fault's word from the home's file. Throws ESystemError.
void WithdrawFault(const THome& home, TFault fault);

}  // namespace guardian
