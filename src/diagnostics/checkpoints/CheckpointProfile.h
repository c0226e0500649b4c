#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "diagnostics/KZCriticalSection.h"

namespace guardian {

// The time that threads spent just before each checkpoint. For other programs of the maker: the
// Guardian leaves the profiling switched off.
// Owner: the checkpoint facility.
// Threads: any thread may call anything.
class TCheckpointProfile {
 public:
  // The ticks to count between two checkpoints of a thread. There are none when the first one is 0
  // (the thread had not passed any), when no time went by, or when 20 minutes or more went by.
  [[nodiscard]] static std::optional<std::int64_t> CountedTicks(std::int64_t previousTick,
                                                                std::int64_t nowTick) noexcept;

  // Adds the ticks to the thread's account of the checkpoint. Throws std::bad_alloc.
  void Account(std::int64_t threadId, std::string_view text, std::int64_t ticks) KZ_EXCLUDES(FLock);

  // Hands the results to writeLine, line by line, and empties the table.
  void WriteResults(const std::function<void(std::string_view)>& writeLine) KZ_EXCLUDES(FLock);

  void Clear() KZ_EXCLUDES(FLock);

 private:
  struct TEntry {
    std::int64_t Invocations = 0;
    std::int64_t Ticks = 0;
  };

  // The keys are thread id, ":" and checkpoint text.
  using TTable = std::map<std::string, TEntry>;

  TTable TakeTable() KZ_EXCLUDES(FLock);
  static std::string ResultLine(const std::string& key, const TEntry& entry);

  TKZCriticalSection FLock{"KZCPProfiling"};
  TTable FTable KZ_GUARDED_BY(FLock);
};

}  // namespace guardian
