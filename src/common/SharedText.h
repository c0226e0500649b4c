#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/Mutex.h"

namespace guardian {

// A value that one thread replaces whole while others read it: a reader sees the old or the new
// one, never a mixture. The lock is held for the copy of one pointer and nothing else; the
// standard library's atomic shared pointer is no faster and, in this release, not free of races.
// Threads: any.
template <typename TValue>
class TShared {
 public:
  using TPointer = std::shared_ptr<const TValue>;

  TShared() : FValue(std::make_shared<const TValue>()) {}
  explicit TShared(TValue value) : FValue(std::make_shared<const TValue>(std::move(value))) {}
  TShared(const TShared&) = delete;
  TShared& operator=(const TShared&) = delete;

  // The current value; stays valid and unchanged for as long as the pointer is kept. Never null.
  [[nodiscard]] TPointer Get() const KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    return FValue;
  }

  // A copy of the current value.
  [[nodiscard]] TValue Copy() const { return *Get(); }

  void Set(TValue value) { Publish(std::make_shared<const TValue>(std::move(value))); }

  // Takes the value as it is, without a copy. Must not be null.
  void Publish(TPointer next) KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    FValue.swap(next);
  }

 private:
  mutable TMutex FLock;
  TPointer FValue KZ_GUARDED_BY(FLock);
};

class TSharedText : public TShared<std::string> {
 public:
  using TText = TPointer;
  using TShared::TShared;
};

inline TSharedText::TText MakeText(std::string text) {
  return std::make_shared<const std::string>(std::move(text));
}

// A long text, of which its versions and readers share what is the same. None of the pieces is
// null.
using TTextPieces = std::vector<TSharedText::TText>;

}  // namespace guardian
