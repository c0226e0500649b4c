#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include "common/Clock.h"
#include "common/Mutex.h"

namespace guardian {

enum class TEventKind : std::uint8_t {
  Error,
  Warning,
  Info,
  Start,  // This and the next three: an action upon the daemon, begun by the watchdog or by a page.
  Stop,
  Terminate,
  Kill,
  Hold,
  Release,
};
inline constexpr std::size_t kEventKinds = 9;

// "error", "warning" and so on.
[[nodiscard]] std::string_view NameOf(TEventKind kind);

// An entry of the activity log, or several of the same kind and text that followed each other
// within a minute. Times are seconds of Unix time. The text is plain, and cut to what fits.
struct TEvent {
  [[nodiscard]] std::string_view Shown() const { return {Text.data(), Length}; }

  std::int64_t FirstAt = 0;
  std::int64_t LastAt = 0;
  std::uint32_t Count = 0;
  TEventKind Kind = TEventKind::Error;
  std::uint8_t Length = 0;
  std::array<char, 178> Text{};
};

// What one minute was like. Of several rounds the worst counts.
struct TMinute {
  // The bits of Seen. Without kLooked nothing is known: the Guardian did not run.
  static constexpr std::uint8_t kMutexFailed = 1;
  static constexpr std::uint8_t kPipeFailed = 2;
  static constexpr std::uint8_t kServiceFailed = 4;
  static constexpr std::uint8_t kLooked = 8;

  std::uint32_t Number = 0;  // Minutes of Unix time; 0 for a place that was never used.
  std::uint16_t PulseAgeSec = 0;
  std::uint8_t Seen = 0;
  std::uint8_t Actions = 0;  // A bit for each of TEventKind::Start to Kill, from the lowest.
};

// What one round of the watchdog saw.
struct TChecks {
  bool MutexOK = false;
  bool PipeOK = false;
  bool ServiceOK = false;
  double PulseAgeSec = 0;
};

// All that is remembered, as it is stored: plain numbers without padding.
struct THistoryRecord {
  static constexpr std::uint32_t kLayout = 0x4B560001;
  static constexpr std::size_t kMinutes = 2'880;

  // The minute of that number; null when nothing is known of it.
  [[nodiscard]] const TMinute* Find(std::int64_t minuteNumber) const;

  std::uint32_t Layout = kLayout;
  std::uint32_t EventCount = 0;
  std::array<TEvent, 200> Events{};  // The first EventCount are used, the oldest first.
  // Each at its number modulo kMinutes, so that a clock that is set leaves gaps and nothing wrong.
  std::array<TMinute, kMinutes> Minutes{};
};
static_assert(std::has_unique_object_representations_v<THistoryRecord>);
static_assert(sizeof(THistoryRecord) < 65'536);

// The record as bytes for the settings store, and back: null for bytes of another layout.
[[nodiscard]] std::string BytesOf(const THistoryRecord& record);
[[nodiscard]] std::unique_ptr<THistoryRecord> RecordOf(std::string_view bytes);

// What the Guardian remembers of the last days: its entries and actions, and each minute.
// Owner: the guardian service, together with the thread that keeps it over a restart.
// Threads: any thread may call anything, and waits for a copy of the record at most.
// Lifetime: the clock outlives it.
class THistory {
 public:
  using TPointer = std::shared_ptr<const THistoryRecord>;

  explicit THistory(TClock& clock) : FClock(clock) {}
  THistory(const THistory&) = delete;
  THistory& operator=(const THistory&) = delete;

  // Adds an event of now; 200 are remembered.
  void AddEvent(TEventKind kind, std::string_view text) KZ_EXCLUDES(FLock);

  // Adds what a round saw to this minute.
  void AddRound(const TChecks& seen) KZ_EXCLUDES(FLock);

  // Puts what an earlier run remembered before all that was added since.
  void TakeOver(const THistoryRecord& earlier) KZ_EXCLUDES(FLock);

  // A copy of what is remembered at this moment; never null.
  [[nodiscard]] TPointer Get() const KZ_EXCLUDES(FLock);

 private:
  [[nodiscard]] std::int64_t UnixNow() const;

  TClock& FClock;
  mutable TMutex FLock;
  THistoryRecord FRecord KZ_GUARDED_BY(FLock);
};

}  // namespace guardian
