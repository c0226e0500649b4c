#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace guardian {

// A function that an address lies in. An unknown text is null, an unknown line is 0.
struct TCodePlace {
  const char* Function = nullptr;  // The linkage name.
  const char* File = nullptr;
  int Line = 0;
};

// Calls visit for the function at the address and, when it was inlined, for the functions around
// it, innermost first. Calls nothing when the address is unknown, or during
// another look-up. Names come from the symbol table, files and lines from the debug information,
// each as far as the executable has them. The first call reads both and keeps them for the life of
// the process. No descriptor stays open, no process is started. Threads: any, without waiting for
// another look-up. After PrepareCodePlaces a signal handler may call it that has set the process a
// limit: it allocates nothing by malloc, but the first call asks the loader for the modules and
// reads files.
void TryVisitCodePlaces(std::uintptr_t address,
                        void (*visit)(void* context, const TCodePlace& place),
                        void* context) noexcept;
void PrepareCodePlaces() noexcept;

// One or more lines for each return address, as in
// "#0 0x000055d6a1b2c3d4 guardian::TWork::Run() at Work.cpp:12 (VellumarkGuardian+0x2c3d3)". The
// number after the "+" is the place of the call in the file, for addr2line. A call from within
// another look-up of its own thread gives the addresses alone. Throws std::bad_alloc. Threads: any;
// a call waits for the look-ups of other threads.
[[nodiscard]] std::vector<std::string> StackTraceLines(
    std::span<const void* const> returnAddresses);

// "0x" and 16 hexadecimal digits.
[[nodiscard]] std::string AddressText(const void* address);

}  // namespace guardian
