#pragma once

#include <utility>

namespace guardian {

// Calls the function when the scope ends, however it ends. The function must not throw.
template <typename TFunction>
class TAtEnd {
 public:
  explicit TAtEnd(TFunction function) : FFunction(std::move(function)) {}
  ~TAtEnd() { FFunction(); }
  TAtEnd(const TAtEnd&) = delete;
  TAtEnd& operator=(const TAtEnd&) = delete;

 private:
  TFunction FFunction;
};

}  // namespace guardian
