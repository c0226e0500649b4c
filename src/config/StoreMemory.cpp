#include "config/StoreMemory.h"

#include <link.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace guardian {
namespace {

// Of the segments that nothing is ever written to, so that nothing can be lost.
// The executable, which has no name here, may have SQLite linked in.
int GiveBackCode(dl_phdr_info* object, std::size_t /*size*/, void* /*context*/) {
  const std::string_view name = object->dlpi_name;
  if (!name.empty() && name.find("/libsqlite3.") == std::string_view::npos) return 0;
  const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  for (int i = 0; i < object->dlpi_phnum; ++i) {
    const auto& segment = object->dlpi_phdr[i];
    if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) != 0) continue;
    const std::uintptr_t start = (object->dlpi_addr + segment.p_vaddr) & ~(page - 1);
    const std::uintptr_t end = object->dlpi_addr + segment.p_vaddr + segment.p_memsz;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the loader tells addresses as numbers.
    ::madvise(reinterpret_cast<void*>(start), end - start, MADV_DONTNEED);
  }
  return 0;
}

}  // namespace

void GiveBackStoreMemory() noexcept {
  ::malloc_trim(0);
  ::dl_iterate_phdr(&GiveBackCode, nullptr);
}

}  // namespace guardian
