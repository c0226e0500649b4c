#include "ipc/PipeObjects.h"

#include <utility>

#include "common/DiagnosticMessage.h"
#include "common/Exceptions.h"
#include "common/NeverDestroyed.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/exception_report.h"

namespace guardian {

void TValidObjects::Register(const void* object, std::string name) {
  const TKZLockGuard lock(FLock);
  FObjects.insert_or_assign(object, std::move(name));
}

void TValidObjects::Unregister(const void* object) {
  const TKZLockGuard lock(FLock);
  FObjects.erase(object);
}

bool TValidObjects::IsValid(const void* object, std::string_view context) {
  {
    const TKZLockGuard lock(FLock);
    if (FObjects.contains(object)) return true;
  }
  FMisses.fetch_add(1);
  KZCP::Checkpoint(context);
  return false;
}

std::string TValidObjects::Leftovers() {
  const TKZLockGuard lock(FLock);
  if (FObjects.empty()) return {};
  std::string text =
      "ValidObjects still contains " + std::to_string(FObjects.size()) + " pointers:";
  for (const auto& [object, name] : FObjects) text += " " + name;
  return text;
}

TValidObjects& ValidObjects() {
  static TNeverDestroyed<TValidObjects> objects;
  return *objects;
}

void WritePipeDiagnostic(std::string_view text) {
  DiagnosticMessage(std::string("KZUnixPipes: ").append(text));
}

void ReportPipeException(const std::string& where) {
  WritePipeDiagnostic(where + ": " + CurrentExceptionMessage());
  HandleException(std::current_exception(), TLogToFiles::Yes, where);
}

}  // namespace guardian
