#include "webstatus/ActivityLog.h"

#include <utility>

#include "common/Texts.h"

namespace guardian {
namespace {

constexpr std::string_view kBreak = "<br>";
constexpr TDateTime kSystemLogInterval = 10 * kMinute;

std::string Appended(const TSharedText& log, std::string_view addition) {
  const TSharedText::TText before = log.Get();
  std::string text;
  text.reserve(before->size() + addition.size());
  text.append(*before).append(addition);
  TrimActivityLogs(text);
  return text;
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
  FDetailedLog.Set(Appended(FDetailedLog, std::string(kBreak).append(message)));
}

void TActivityLog::AddEntry(TEventKind kind, std::string_view message) {
  if (FHistory != nullptr) FHistory->AddEvent(kind, message);
  const std::string time = DateTimeToStr(FClock.Now());
  const std::string entry =
      std::string(kBreak).append(time).append(LabelOf(kind)).append(HtmlEscape(message));
  const TMutexLock lock(FLock);
  FShortLog.Set(Appended(FShortLog, entry));
  FDetailedLog.Set(Appended(FDetailedLog, entry));
}

void TActivityLog::ForwardThrottled(std::string_view message, TSystemLogKind kind,
                                    TDateTime& lastSystemLogAt) const {
  const TDateTime now = FClock.SteadyNow();
  if (lastSystemLogAt >= now - kSystemLogInterval) return;
  FSystemLog(message, kind);
  lastSystemLogAt = now;
}

void TrimActivityLogs(std::string& log) {
  constexpr std::size_t kStep = 3;
  if (log.size() <= kActivityLogLimit) return;
  const std::size_t excess = log.size() - kActivityLogLimit;
  std::size_t cut = 0;
  while (cut < excess) {
    const std::size_t entryEnd = log.find(kBreak, cut);
    if (entryEnd == std::string::npos) {
      cut += (excess - cut + kStep - 1) / kStep * kStep;
    } else {
      cut = entryEnd + kBreak.size();
    }
  }
  log.erase(0, cut);
}

}  // namespace guardian
