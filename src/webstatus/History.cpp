#include "webstatus/History.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

#include "common/Texts.h"

namespace guardian {
namespace {

constexpr std::array<std::string_view, kEventKinds> kKindNames = {
    "error", "warning", "info", "start", "stop", "terminate", "kill", "hold", "release"};

// The start of the text that fits, without half a character at its end.
std::string_view Fitting(std::string_view text) {
  constexpr std::size_t kMost = sizeof(TEvent::Text);
  if (text.size() <= kMost) return text;
  std::size_t length = kMost;
  while (length > kMost - 4 && (static_cast<unsigned char>(text[length]) & 0xC0U) == 0x80U)
    --length;
  return text.substr(0, length);
}

// The same event of the last minute, if it is among the last few, and since the last hold or
// release; null otherwise. A daemon that cannot be started must not push out what was before.
TEvent* FindRepeated(THistoryRecord& record, const TEvent& event) {
  constexpr std::uint32_t kLookedAt = 6;
  constexpr std::int64_t kLongestSec = 60;
  for (std::uint32_t back = 1; back <= std::min(record.EventCount, kLookedAt); ++back) {
    TEvent& other = record.Events.at(record.EventCount - back);
    if (other.Kind >= TEventKind::Hold) return nullptr;
    if (other.Kind == event.Kind && other.Shown() == event.Shown() &&
        std::abs(other.LastAt - event.LastAt) <= kLongestSec) {
      return &other;
    }
  }
  return nullptr;
}

void Append(THistoryRecord& record, const TEvent& event) {
  if (record.EventCount == record.Events.size()) {
    std::move(record.Events.begin() + 1, record.Events.end(), record.Events.begin());
    --record.EventCount;
  }
  record.Events.at(record.EventCount++) = event;
}

// The place of the minute of that time, emptied if another minute had it. Times before 1970 share
// one place, which nobody looks at.
TMinute& MinuteAt(THistoryRecord& record, std::int64_t unixSec) {
  const auto number = static_cast<std::uint32_t>(std::max<std::int64_t>(unixSec / 60, 0));
  TMinute& minute = record.Minutes.at(number % THistoryRecord::kMinutes);
  if (minute.Number != number) minute = {.Number = number};
  return minute;
}

void Join(TMinute& minute, const TMinute& other) {
  minute.PulseAgeSec = std::max(minute.PulseAgeSec, other.PulseAgeSec);
  minute.Seen |= other.Seen;
  minute.Actions |= other.Actions;
}

// Up to the year 5138: what is calculated with it does not overflow.
bool IsTime(std::int64_t unixSec) { return std::abs(unixSec / 2) < 50'000'000'000; }

bool IsSound(const THistoryRecord& record) {
  if (record.Layout != THistoryRecord::kLayout) return false;
  if (record.EventCount > record.Events.size()) return false;
  for (std::uint32_t i = 0; i < record.EventCount; ++i) {
    const TEvent& event = record.Events.at(i);
    if (static_cast<std::size_t>(event.Kind) >= kEventKinds) return false;
    if (event.Length > sizeof(event.Text)) return false;
    if (!IsTime(event.FirstAt) || !IsTime(event.LastAt)) return false;
  }
  for (std::size_t i = 0; i < record.Minutes.size(); ++i) {
    const std::uint32_t number = record.Minutes.at(i).Number;
    if (number != 0 && number % THistoryRecord::kMinutes != i) return false;
  }
  return true;
}

}  // namespace

std::string_view NameOf(TEventKind kind) { return kKindNames.at(static_cast<std::size_t>(kind)); }

const TMinute* THistoryRecord::Find(std::int64_t minuteNumber) const {
  if (minuteNumber <= 0) return nullptr;
  const TMinute& minute = Minutes.at(static_cast<std::size_t>(minuteNumber) % kMinutes);
  return minute.Number == minuteNumber ? &minute : nullptr;
}

std::string BytesOf(const THistoryRecord& record) {
  std::string bytes(sizeof(record), '\0');
  std::memcpy(bytes.data(), &record, sizeof(record));
  return bytes;
}

std::unique_ptr<THistoryRecord> RecordOf(std::string_view bytes) {
  if (bytes.size() != sizeof(THistoryRecord)) return nullptr;
  auto record = std::make_unique<THistoryRecord>();
  std::memcpy(record.get(), bytes.data(), sizeof(THistoryRecord));
  return IsSound(*record) ? std::move(record) : nullptr;
}

void THistory::AddEvent(TEventKind kind, std::string_view text) {
  TEvent event{.FirstAt = UnixNow(), .Count = 1, .Kind = kind};
  event.LastAt = event.FirstAt;
  const std::string_view fitting = Fitting(text);
  event.Length = static_cast<std::uint8_t>(fitting.size());
  std::copy(fitting.begin(), fitting.end(), event.Text.begin());
  const TMutexLock lock(FLock);
  if (TEvent* const repeated = FindRepeated(FRecord, event)) {
    ++repeated->Count;
    repeated->LastAt = event.LastAt;
  } else {
    Append(FRecord, event);
  }
  if (event.Kind < TEventKind::Start || event.Kind > TEventKind::Kill) return;
  const auto bit = static_cast<unsigned>(event.Kind) - static_cast<unsigned>(TEventKind::Start);
  MinuteAt(FRecord, event.LastAt).Actions |= static_cast<std::uint8_t>(1U << bit);
}

void THistory::AddRound(const TChecks& seen) {
  constexpr double kMost = std::numeric_limits<std::uint16_t>::max();
  TMinute round{.Seen = TMinute::kLooked};
  round.PulseAgeSec = static_cast<std::uint16_t>(std::clamp(seen.PulseAgeSec, 0.0, kMost));
  if (!seen.MutexOK) round.Seen |= TMinute::kMutexFailed;
  if (!seen.PipeOK) round.Seen |= TMinute::kPipeFailed;
  if (!seen.ServiceOK) round.Seen |= TMinute::kServiceFailed;
  const TMutexLock lock(FLock);
  Join(MinuteAt(FRecord, UnixNow()), round);
}

void THistory::TakeOver(const THistoryRecord& earlier) {
  const TMutexLock lock(FLock);
  const auto added = std::make_unique<THistoryRecord>(FRecord);
  FRecord = earlier;
  for (std::uint32_t i = 0; i < added->EventCount; ++i) Append(FRecord, added->Events.at(i));
  for (const TMinute& minute : added->Minutes) {
    if (minute.Number != 0) Join(MinuteAt(FRecord, std::int64_t{minute.Number} * 60), minute);
  }
}

THistory::TPointer THistory::Get() const {
  const TMutexLock lock(FLock);
  return std::make_shared<THistoryRecord>(FRecord);
}

std::int64_t THistory::UnixNow() const { return UnixSeconds(FClock.UtcNow()); }

}  // namespace guardian
