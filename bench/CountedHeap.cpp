#include "CountedHeap.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

thread_local std::int64_t tAllocations = 0;
std::atomic<std::int64_t> bytesNow = 0;
std::atomic<std::int64_t> bytesAtMost = 0;

void CountBytes(void* memory) noexcept {
  const auto bytes = static_cast<std::int64_t>(::malloc_usable_size(memory));
  const std::int64_t now = bytesNow.fetch_add(bytes) + bytes;
  std::int64_t most = bytesAtMost;
  while (now > most && !bytesAtMost.compare_exchange_weak(most, now)) continue;
}

}  // namespace

// Not inlined: the compiler takes an inlined half of such a pair for a mismatch.
[[gnu::noinline]] void* operator new(std::size_t bytes) {
  ++tAllocations;
  void* const memory = std::malloc(bytes);
  if (memory == nullptr) throw std::bad_alloc();
  CountBytes(memory);
  return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  bytesNow -= static_cast<std::int64_t>(::malloc_usable_size(memory));
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t /*bytes*/) noexcept {
  operator delete(memory);
}

namespace guardian {

std::int64_t AllocationsOfThread() noexcept { return tAllocations; }
std::int64_t HeapPeakBytes() noexcept { return bytesAtMost; }
std::int64_t ResetHeapPeak() noexcept { return bytesAtMost = bytesNow.load(); }

}  // namespace guardian
