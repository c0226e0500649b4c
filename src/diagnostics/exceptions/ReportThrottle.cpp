#include "diagnostics/exceptions/ReportThrottle.h"

#include <array>
#include <charconv>
#include <cmath>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "common/DiagnosticMessage.h"

namespace guardian {
namespace {

constexpr std::string_view kSection = "Main";
constexpr std::string_view kKey = "LastDetailedThreadReportLoggedAtUTC";

std::string NumberText(TDateTime value) {
  constexpr int kSignificantDigits = 10;
  std::array<char, 64> text;
  const char* const end = std::to_chars(text.data(), text.data() + text.size(), value,
                                        std::chars_format::general, kSignificantDigits)
                              .ptr;
  return std::string(std::string_view(text.data(), end));
}

// 0 for a text that is not a number, or no finite one.
TDateTime NumberOf(const std::string& text) {
  TDateTime value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  return result.ec == std::errc() && std::isfinite(value) ? value : 0;
}

}  // namespace

bool DetailIsDue(TDateTime last, TDateTime now) noexcept {
  constexpr TDateTime kHour = 1.0 / 24;
  // The stored text is rounded by less than a second.
  return last < now - kHour || last > now + kSecond;
}

bool TReportThrottle::Admit(TDateTime now) noexcept {
  TDateTime last = FLast.load();
  // Of several threads that report at the same time, one goes on.
  if (!DetailIsDue(last, now) || !FLast.compare_exchange_strong(last, now)) return false;
  FIsNew.store(true);
  return true;
}

void TReportThrottle::KeepNewTime(const TStoreOpener& openStore) noexcept {
  if (FIsNew.exchange(false)) UseStore(openStore);
}

void TReportThrottle::UseStore(const TStoreOpener& openStore) noexcept {
  if (!openStore) return;
  Guarded("TReportThrottle.UseStore", SystemClock(), [&] {
    const TMutexLock lock(FLock);
    FRequest = openStore;
    if (FWorking) return;
    // The former thread has ended its work. The new one joins it: the main thread would run other
    // threads' requests meanwhile, in the middle of a report.
    auto work = [this, former = std::shared_ptr<TThread>(std::move(FThread))]() mutable {
      former.reset();
      Execute();
    };
    FThread = std::make_unique<TFunctionThread>("ReportStore", std::move(work));
    FThread->Start();
    FWorking = true;
  });
}

void TReportThrottle::Execute() {
  for (TStoreOpener openStore; TakeRequest(openStore);) {
    Guarded("TReportThrottle.Agree", SystemClock(), [&] { Agree(openStore); });
  }
}

bool TReportThrottle::TakeRequest(TStoreOpener& openStore) {
  const TMutexLock lock(FLock);
  openStore = std::exchange(FRequest, {});
  if (openStore) return true;
  FWorking = false;
  FDone.NotifyAll();
  return false;
}

// Only a run that has admitted none yet takes the stored time over. From then on memory is right,
// also when the store has a time of the future.
void TReportThrottle::Agree(const TStoreOpener& openStore) {
  TDateTime last = FLast.load();
  const auto store = openStore(last == 0 ? TStoreUse::Look : TStoreUse::Keep);
  if (store == nullptr) return;
  const std::string stored = store->ReadString(kSection, kKey, "");
  if (last == 0) {
    FLast.compare_exchange_strong(last, NumberOf(stored));
  } else if (stored != NumberText(last)) {
    store->WriteString(kSection, kKey, NumberText(last));
    store->UpdateFile();
  }
}

bool TReportThrottle::WaitForStore(std::chrono::milliseconds timeout) {
  const std::int64_t deadline = SystemTickCount() + timeout.count();
  const TMutexLock lock(FLock);
  while (FWorking) {
    const std::int64_t left = deadline - SystemTickCount();
    if (left <= 0) return false;
    FDone.WaitFor(FLock, std::chrono::milliseconds(left));
  }
  return true;
}

void TReportThrottle::Forget() {
  std::unique_ptr<TThread> ended;  // Joined without the lock.
  const TMutexLock lock(FLock);
  if (!FWorking) ended = std::move(FThread);
  FLast.store(0);
}

}  // namespace guardian
