#pragma once

namespace guardian {

// Gives the system back what a settings store needs only while it is used: the free parts of the
// heap, and the pages of SQLite's code, and of the executable's, that this process has mapped. The
// next use of each maps it again.
// Threads: any.
void GiveBackStoreMemory() noexcept;

}  // namespace guardian
