#include "ipc/KZUnixPipes.h"

#include <cassert>

#include "common/MainThread.h"
#include "diagnostics/exceptions/PipeCounters.h"

namespace guardian {

void StartPipes() {
  assert(IsMainThread());
  SetPipeDirectory({});
}

void StopPipes() {
  assert(IsMainThread());
  if (const std::string leftovers = ValidObjects().Leftovers(); !leftovers.empty()) {
    WritePipeDiagnostic(leftovers);
  }
  if (PipeCounters().ClientPipes.load() + PipeCounters().ServerPipes.load() > 0) {
    WritePipeDiagnostic("Not all pipes closed at end of process.");
  }
  SetPipeDirectory({});
}

}  // namespace guardian
