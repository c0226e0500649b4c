#include "diagnostics/checkpoints/ThreadReport.h"

#include "common/Exceptions.h"
#include "diagnostics/checkpoints/CheckpointRecord.h"

namespace guardian {
namespace {

// Times in a report are in units of 10 microseconds.
constexpr std::int64_t kUnitsPerSecond = 100'000;

constexpr std::int64_t ToUnits(std::int64_t ticks) {
  return ticks * kUnitsPerSecond / kTicksPerSecond;
}

constexpr TDateTime ToDays(std::int64_t ticks) {
  return static_cast<TDateTime>(ticks) / static_cast<TDateTime>(kTicksPerSecond) / 86'400;
}

std::string CurrentCPOf(const TCheckpointRecord* record) {
  try {
    if (record != nullptr) return record->CurrentCP();
  } catch (...) {
    // Unreadable counts as missing.
  }
  return "N/A";
}

void AppendAwaitedLock(std::string& text, const TCheckpointRecord& record) {
  try {
    const auto awaited = record.AwaitedLock();
    if (!awaited) return;
    text += "Waiting for CS " + awaited->Name + " owned by thread #" +
            std::to_string(awaited->Holder) + "\n";
  } catch (...) {
    text += "Waiting for CS (exception " + CurrentExceptionMessage() + ")";
  }
}

// The time between two history entries, in milliseconds with two decimals.
void AppendDelta(std::string& text, std::int64_t units) {
  constexpr std::int64_t kExact = 10;
  constexpr std::int64_t kTooLong = 3'600'000;
  if (units <= 0 || units >= kTooLong) return;
  const auto hundredths = static_cast<int>(units % 100);
  text += units < kExact ? '[' : '{';
  text += std::to_string(units / 100);
  text += '.';
  text += static_cast<char>('0' + hundredths / 10);
  text += static_cast<char>('0' + hundredths % 10);
  text += units < kExact ? ']' : '}';
}

// One pass over a ring, from the newest entry to the oldest.
class THistoryWalk {
 public:
  THistoryWalk(std::string& text, const TCheckpointHistory& history, TDateTime tickOrigin)
      : FText(text), FHistory(history), FTickOrigin(tickOrigin) {}

  void Run(int newestIndex) {
    int index = newestIndex;
    for (int step = 1; step <= TCheckpointHistory::kEntries; ++step) {
      AppendEntry(index, step < TCheckpointHistory::kEntries);
      index = TCheckpointHistory::Older(index);
    }
  }

 private:
  void AppendEntry(int index, bool hasOlder) {
    constexpr int kEntriesPerLine = 10;
    const TCheckpointHistoryEntry& entry = FHistory.At(index);
    const auto checkpoint = entry.Text.Load();
    if (checkpoint.View().empty()) return;
    const std::int64_t tick = entry.Tick.load(std::memory_order_relaxed);
    if (FShown % kEntriesPerLine == 0) AppendLineStart(tick);
    const std::size_t start = FText.size();
    if (hasOlder) {
      const auto& older = FHistory.At(TCheckpointHistory::Older(index));
      AppendDelta(FText, ToUnits(tick - older.Tick.load(std::memory_order_relaxed)));
    }
    FText += checkpoint.View();
    PadFrom(start);
    if (++FShown % kEntriesPerLine == 0) FText += '\n';
  }

  void AppendLineStart(std::int64_t tick) {
    FText += TimeOfDayToStr(FTickOrigin + ToDays(tick));
    FText += '.';
    FText += std::to_string(ToUnits(tick) % kUnitsPerSecond);
    FText += ' ';
  }

  void PadFrom(std::size_t start) {
    constexpr std::size_t kColumns = 20;
    const std::size_t used = FText.size() - start;
    if (used < kColumns) FText.append(kColumns - used, ' ');
    FText += "   ";
  }

  std::string& FText;
  const TCheckpointHistory& FHistory;
  const TDateTime FTickOrigin;  // The local time at which the tick count was 0.
  int FShown = 0;
};

void AppendHistory(std::string& text, const TCheckpointRecord& record, TDateTime tickOrigin) {
  try {
    const TCheckpointHistory* const history = record.History();
    if (history == nullptr) return;
    const int newest = history->NewestIndex();
    if (newest == 0) return;
    if (newest < 1 || newest > TCheckpointHistory::kEntries) {
      text += "Invalid CP History Data";
      return;
    }
    THistoryWalk(text, *history, tickOrigin).Run(newest);
    text += "\n\n";
  } catch (...) {
    text += "Error getting thread CP history.\n";
  }
}

void AppendThread(std::string& text, const TInt64List::TItem& item) {
  const TCheckpointRecord* const record = item.Record.get();
  text += "Thread " + std::to_string(item.Id) + ", CP: " + CurrentCPOf(record) + "\n";
  if (record != nullptr) AppendAwaitedLock(text, *record);
}

}  // namespace

std::string ThreadListReport(const TInt64List& threads, const TReportMoment& moment,
                             TReportDetail detail) {
  std::string text = "Number of threads: " + std::to_string(threads.Items().size()) + "\n";
  for (const auto& item : threads.Items()) AppendThread(text, item);
  if (detail == TReportDetail::Plain) return text;
  text += "-----------------\n\n";
  const TDateTime tickOrigin = moment.Now - ToDays(moment.Tick);
  for (const auto& item : threads.Items()) {
    AppendThread(text, item);
    if (item.Record != nullptr) AppendHistory(text, *item.Record, tickOrigin);
  }
  return text;
}

}  // namespace guardian
