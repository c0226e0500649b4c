#pragma once

#include <string_view>

namespace guardian {

// Where a thread of this floor is. The checkpoint facility, which lies above, hooks in here, so
// that its report shows every thread from its start on; without a hook nothing happens. Threads:
// any; the main thread sets the hook.

using TProgressHook = void (*)(std::string_view place) noexcept;

// Null for no hook.
void SetProgressHook(TProgressHook hook) noexcept;

// The calling thread has come to the place: a short text, as of a checkpoint.
void NoteProgress(std::string_view place) noexcept;

}  // namespace guardian
