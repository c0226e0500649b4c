#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace guardian {

// A function that an address lies in. Texts are null, and the line is 0, where they are not known.
struct TCodePlace {
  const char* Function = nullptr;  // As the linker knows it.
  const char* File = nullptr;
  int Line = 0;
};

// Calls visit for the function at the address, and, where that was inlined, for those around it,
// innermost first; for none when nothing is known of the address, or while somebody else is asking.
// Names come from the symbol table, files and lines from the debug information, each as far as the
// executable has them. The first call reads them and keeps them for the life of the process. No
// descriptor stays open, no process is started.
// Threads: any, without waiting. Async-signal-safe once PrepareCodePlaces has been called.
void TryVisitCodePlaces(std::uintptr_t address,
                        void (*visit)(void* context, const TCodePlace& place),
                        void* context) noexcept;
void PrepareCodePlaces() noexcept;

// One or more lines for each return address, as in
// "#0 0x000055d6a1b2c3d4 guardian::TWork::Run() at Work.cpp:12 (VellumarkGuardian+0x2c3d3)". The
// number behind the "+" is that of the call, for addr2line. Throws std::bad_alloc.
// Threads: any; each waits while another has an address looked up.
[[nodiscard]] std::vector<std::string> StackTraceLines(
    std::span<const void* const> returnAddresses);

// "0x" and 16 hexadecimal digits.
[[nodiscard]] std::string AddressText(const void* address);

}  // namespace guardian
