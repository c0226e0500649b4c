#pragma once

namespace guardian {

// Gives the system back what a settings store needs only while it is used: the free parts of the
// heap and, where SQLite is a shared library, the pages of its code that this process has mapped.
// The next use maps them again.
// Threads: any.
void GiveBackStoreMemory() noexcept;

}  // namespace guardian
