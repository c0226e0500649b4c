#pragma once

#include <memory>

#include "common/Settings.h"

namespace guardian {

// Makes Settings() at its end what they are at the start of a process.
class TSettingsBackup {
 public:
  TSettingsBackup() {}
  ~TSettingsBackup() {
    std::destroy_at(&Settings());
    std::construct_at(&Settings());
  }
  TSettingsBackup(const TSettingsBackup&) = delete;
  TSettingsBackup& operator=(const TSettingsBackup&) = delete;
};

}  // namespace guardian
