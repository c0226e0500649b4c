#pragma once

#include "common/ThreadAnnotations.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/KZCriticalSection.h"

namespace guardian {

// Holds the lock of a store for one operation, and passes the checkpoints that show it.
class KZ_SCOPED_CAPABILITY TSqlIniLock {
 public:
  explicit TSqlIniLock(TKZCriticalSection& section) KZ_ACQUIRE(section) : FSection(section) {
    KZCP::Checkpoint("SqlIni.Entering");
    FSection.Enter();
    KZCP::Checkpoint("SqlIni.EnterOK");
  }
  ~TSqlIniLock() KZ_RELEASE() {
    FSection.Leave();
    KZCP::Checkpoint("SqlIni.LeftOK");
  }
  TSqlIniLock(const TSqlIniLock&) = delete;
  TSqlIniLock& operator=(const TSqlIniLock&) = delete;

 private:
  TKZCriticalSection& FSection;
};

}  // namespace guardian
