#pragma once

#include <cstdint>

namespace guardian {

// What operator new hands out in a program that links CountedHeap.cpp. Threads: any.

// The allocations of the calling thread since its start.
[[nodiscard]] std::int64_t AllocationsOfThread() noexcept;

// The most bytes that all threads had at a time since the last ResetHeapPeak, which returns the
// bytes that they have now.
[[nodiscard]] std::int64_t HeapPeakBytes() noexcept;
std::int64_t ResetHeapPeak() noexcept;

}  // namespace guardian
