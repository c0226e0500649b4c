#pragma once

#include <memory>
#include <string>
#include <utility>

#include "common/Mutex.h"

namespace guardian {

// A text that one thread replaces whole while others read it: a reader sees the old or the new
// one, never a mixture. The lock is held for the copy of one pointer and nothing else; the
// standard library's atomic shared pointer is no faster and, in this release, not free of races.
// Threads: any.
class TSharedText {
 public:
  using TText = std::shared_ptr<const std::string>;

  TSharedText() : TSharedText(std::string()) {}
  explicit TSharedText(std::string text)
      : FText(std::make_shared<const std::string>(std::move(text))) {}
  TSharedText(const TSharedText&) = delete;
  TSharedText& operator=(const TSharedText&) = delete;

  // The current text; stays valid and unchanged for as long as the pointer is kept. Never null.
  [[nodiscard]] TText Get() const KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    return FText;
  }

  // A copy of the current text.
  [[nodiscard]] std::string Copy() const { return *Get(); }

  void Set(std::string text) KZ_EXCLUDES(FLock) {
    TText next = std::make_shared<const std::string>(std::move(text));
    const TMutexLock lock(FLock);
    FText.swap(next);
  }

 private:
  mutable TMutex FLock;
  TText FText KZ_GUARDED_BY(FLock);
};

}  // namespace guardian
