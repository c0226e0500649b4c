#include "webstatus/ActivityLog.h"

#include <utility>

#include "common/Texts.h"

namespace guardian {
namespace {

constexpr std::string_view kBreak = "<br>";
constexpr TDateTime kSystemLogInterval = 10 * kMinute;

std::size_t LengthOf(const TTextPieces& log) {
  std::size_t length = 0;
  for (const auto& piece : log) length += piece->size();
  return length;
}

// Copies the last piece at most, and the first one when the log is full.
TTextPieces Appended(TTextPieces log, std::string_view addition) {
  constexpr std::size_t kPieceBytes = 8192;
  std::string last;
  if (!log.empty() && log.back()->size() + addition.size() <= kPieceBytes) {
    last.reserve(log.back()->size() + addition.size());
    last = *log.back();
    log.pop_back();
  }
  log.push_back(MakeText(last.append(addition)));
  TrimActivityLogs(log);
  return log;
}

std::string_view LabelOf(TEventKind kind) {
  if (kind == TEventKind::Error) return "  ERROR: ";
  return kind == TEventKind::Warning ? "  WARNING: " : "  INFO: ";
}

}  // namespace

TActivityLog::TActivityLog(TSystemLog systemLog, TClock& clock, THistory* history)
    : FSystemLog(std::move(systemLog)), FClock(clock), FHistory(history) {}

void TActivityLog::AddErrorEntry(int /*category*/, int /*event*/, std::string_view message,
                                 TDateTime& lastSystemLogAt) {
  ForwardThrottled(message, TSystemLogKind::Error, lastSystemLogAt);
  AddEntry(TEventKind::Error, message);
}

void TActivityLog::AddWarningEntry(int /*category*/, int /*event*/, std::string_view message,
                                   TDateTime& lastSystemLogAt) {
  ForwardThrottled(message, TSystemLogKind::Warning, lastSystemLogAt);
  AddEntry(TEventKind::Warning, message);
}

void TActivityLog::AddInfoEntry(int /*category*/, int /*event*/, std::string_view message,
                                TEventKind kind) {
  FSystemLog(message, TSystemLogKind::Information);
  AddEntry(kind, message);
}

void TActivityLog::AddDetailEntry(std::string_view message) {
  const TMutexLock lock(FLock);
  FDetailedLog.Set(Appended(FDetailedLog.Copy(), std::string(kBreak).append(message)));
}

void TActivityLog::AddEntry(TEventKind kind, std::string_view message) {
  if (FHistory != nullptr) FHistory->AddEvent(kind, message);
  const std::string time = DateTimeToStr(FClock.Now());
  const std::string entry =
      std::string(kBreak).append(time).append(LabelOf(kind)).append(HtmlEscape(message));
  const TMutexLock lock(FLock);
  FShortLog.Set(Appended(FShortLog.Copy(), entry));
  FDetailedLog.Set(Appended(FDetailedLog.Copy(), entry));
}

void TActivityLog::ForwardThrottled(std::string_view message, TSystemLogKind kind,
                                    TDateTime& lastSystemLogAt) const {
  const TDateTime now = FClock.SteadyNow();
  if (lastSystemLogAt >= now - kSystemLogInterval) return;
  FSystemLog(message, kind);
  lastSystemLogAt = now;
}

void TrimActivityLogs(TTextPieces& log) {
  constexpr std::size_t kStep = 3;
  const std::size_t length = LengthOf(log);
  if (length <= kActivityLogLimit) return;
  const std::size_t excess = length - kActivityLogLimit;
  std::string start;  // Of the log: as many pieces as the cut needs.
  auto next = log.begin();
  std::size_t cut = 0;
  while (cut < excess) {
    const std::size_t entryEnd = start.find(kBreak, cut);
    if (entryEnd != std::string::npos) {
      cut = entryEnd + kBreak.size();
    } else if (next != log.end()) {
      start.append(**next++);
    } else {
      cut += (excess - cut + kStep - 1) / kStep * kStep;
    }
  }
  start.erase(0, cut);
  log.erase(log.begin() + 1, next);
  log.front() = MakeText(std::move(start));
}

}  // namespace guardian
