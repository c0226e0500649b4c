#include "diagnostics/exceptions/ReportThrottle.h"

#include <array>
#include <charconv>
#include <string>
#include <string_view>
#include <system_error>

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

// 0 for a text that is not a number.
TDateTime NumberOf(const std::string& text) {
  TDateTime value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  return result.ec == std::errc() ? value : 0;
}

// Whether more than an hour has passed since the stored time; if so, the new time is stored. Sets
// `stored` to the time that was found.
bool Take(TKZCustomINIFile& store, TDateTime now, TDateTime& stored) {
  stored = NumberOf(store.ReadString(kSection, kKey, ""));
  if (!DetailIsDue(stored, now)) return false;
  store.WriteString(kSection, kKey, NumberText(now));
  store.UpdateFile();
  return true;
}

}  // namespace

bool DetailIsDue(TDateTime last, TDateTime now) noexcept {
  constexpr TDateTime kHour = 1.0 / 24;
  // The stored text is rounded by less than a second.
  return last < now - kHour || last > now + kSecond;
}

bool TReportThrottle::Admit(TDateTime now, const TStoreOpener& openStore) noexcept {
  TDateTime last = FLast.load();
  // Of several threads that report at the same time, one goes on.
  if (!DetailIsDue(last, now) || !FLast.compare_exchange_strong(last, now)) return false;
  bool due = true;
  Guarded("TReportThrottle.Admit", SystemClock(), [&] {
    const auto store = openStore ? openStore() : nullptr;
    if (store == nullptr) return;
    TDateTime stored = now;
    due = Take(*store, now, stored);
    if (!due) FLast.store(stored);
  });
  return due;
}

}  // namespace guardian
