#include "common/FatalSignals.h"

#include <sys/mman.h>

#include <cstddef>

namespace guardian {
namespace {

// Pages that are never touched cost address space only.
constexpr std::size_t kBytes = 262'144;

}  // namespace

TAlternateSignalStack::TAlternateSignalStack() noexcept {
  stack_t present{};
  if (::sigaltstack(nullptr, &present) != 0 || (present.ss_flags & SS_DISABLE) == 0) return;
  void* const memory = ::mmap(nullptr, kBytes, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) return;
  const stack_t ours{.ss_sp = memory, .ss_flags = 0, .ss_size = kBytes};
  if (::sigaltstack(&ours, nullptr) == 0) {
    FMemory = memory;
  } else {
    ::munmap(memory, kBytes);
  }
}

TAlternateSignalStack::~TAlternateSignalStack() {
  if (FMemory == nullptr) return;
  const stack_t none{.ss_sp = nullptr, .ss_flags = SS_DISABLE, .ss_size = 0};
  if (::sigaltstack(&none, nullptr) == 0) ::munmap(FMemory, kBytes);
}

}  // namespace guardian
