#include "diagnostics/checkpoints/CheckpointProfile.h"

#include <utility>

#include "common/Texts.h"

namespace guardian {

std::optional<std::int64_t> TCheckpointProfile::CountedTicks(std::int64_t previousTick,
                                                             std::int64_t nowTick) noexcept {
  constexpr std::int64_t kTooLong = 1'200'000;
  if (previousTick == 0) return std::nullopt;
  const std::int64_t ticks = nowTick - previousTick;
  if (ticks <= 0 || ticks >= kTooLong) return std::nullopt;
  return ticks;
}

void TCheckpointProfile::Account(std::int64_t threadId, std::string_view text, std::int64_t ticks) {
  std::string key = std::to_string(threadId & 0x7FFFFFFF);
  key.append(":").append(text);
  const TKZLockGuard lock(FLock);
  TEntry& entry = FTable[std::move(key)];
  entry.Ticks += ticks;
  ++entry.Invocations;
}

void TCheckpointProfile::WriteResults(const std::function<void(std::string_view)>& writeLine) {
  constexpr std::int64_t kTooLittleToShow = 1'000;
  const TTable table = TakeTable();
  writeLine("Profiling Results: Times used just before each checkpoint.");
  writeLine("----------------------------------------------------------");
  for (const auto& [key, entry] : table) {
    if (entry.Ticks > kTooLittleToShow) writeLine(ResultLine(key, entry));
  }
}

TCheckpointProfile::TTable TCheckpointProfile::TakeTable() {
  const TKZLockGuard lock(FLock);
  return std::exchange(FTable, {});
}

std::string TCheckpointProfile::ResultLine(const std::string& key, const TEntry& entry) {
  constexpr std::size_t kKeyColumns = 30;
  std::string line(key.size() < kKeyColumns ? kKeyColumns - key.size() : 0, ' ');
  line += key + "   " + FormatFixed(static_cast<double>(entry.Ticks) / 1000, 10, 2);
  return line + "s (" + std::to_string(entry.Invocations) + " invocations)";
}

void TCheckpointProfile::Clear() { static_cast<void>(TakeTable()); }

}  // namespace guardian
