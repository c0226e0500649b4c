#pragma once

#include <new>
#include <utility>

namespace guardian {

// A process-wide object that is made at its first use and never destroyed, since threads may use it
// until the very end of the process:
//
//   static TNeverDestroyed<TErrorLog> log;
//   return *log;
template <typename T>
class TNeverDestroyed {
 public:
  template <typename... TArguments>
  explicit TNeverDestroyed(TArguments&&... arguments) {
    ::new (static_cast<void*>(FBytes)) T(std::forward<TArguments>(arguments)...);
  }
  TNeverDestroyed(const TNeverDestroyed&) = delete;
  TNeverDestroyed& operator=(const TNeverDestroyed&) = delete;

  [[nodiscard]] T& operator*() noexcept { return *std::launder(reinterpret_cast<T*>(FBytes)); }

 private:
  alignas(T) unsigned char FBytes[sizeof(T)];
};

}  // namespace guardian
