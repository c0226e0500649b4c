#include "common/Progress.h"

#include <atomic>

namespace guardian {
namespace {

constinit std::atomic<TProgressHook> progressHook = nullptr;  // Atomic: called by any thread.

}  // namespace

void SetProgressHook(TProgressHook hook) noexcept { progressHook.store(hook); }

void NoteProgress(std::string_view place) noexcept {
  if (const TProgressHook hook = progressHook.load()) hook(place);
}

}  // namespace guardian
