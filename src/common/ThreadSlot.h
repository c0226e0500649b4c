#pragma once

namespace guardian {

// One object of type T for each thread, made at the thread's first Get and destroyed at the
// thread's end. T is default-constructible and does not use its own slot while it is made. Owner:
// the thread. Threads: any; a thread reaches its own object only. Lifetime: destructors of other
// thread-local objects may run after the object is gone; Get then returns null, so calls from them
// are harmless.
template <typename T>
class TThreadSlot {
 public:
  // The calling thread's object; null when the thread's end has destroyed it, or when there was no
  // memory to make it. Never throws.
  [[nodiscard]] static T* Get() noexcept {
    T* const object = FObject;
    return object != nullptr ? object : Make();
  }

  // The calling thread's object if it has one, else null. Async-signal-safe.
  [[nodiscard]] static T* Peek() noexcept { return FObject; }

 private:
  struct THolder {
    THolder() { FObject = &Object; }
    // Before the object's own destructor: from then on nobody may reach it.
    ~THolder() {
      FObject = nullptr;
      FEnded = true;
    }
    THolder(const THolder&) = delete;
    THolder& operator=(const THolder&) = delete;

    T Object;
  };

  static T* Make() noexcept {
    if (FEnded) return nullptr;
    try {
      static thread_local THolder holder;
      return &holder.Object;
    } catch (...) {
      return nullptr;  // No memory: the caller goes without, and a later call tries again.
    }
  }

  // Without destructors of their own, hence readable until the thread is gone.
  inline static constinit thread_local T* FObject = nullptr;
  inline static constinit thread_local bool FEnded = false;
};

}  // namespace guardian
