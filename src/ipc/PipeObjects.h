#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "diagnostics/KZCriticalSection.h"

namespace guardian {

// The transport objects that are alive: clients, servers, threads, queues. An operation that may
// run after its object's end asks here first. Owner: process-wide, see ValidObjects(). Threads:
// any.
class TValidObjects {
 public:
  void Register(const void* object, std::string name) KZ_EXCLUDES(FLock);
  void Unregister(const void* object) KZ_EXCLUDES(FLock);

  // Whether the object is registered; if not, one more miss is counted. The context is the name of
  // the operation that asks; it becomes a checkpoint at a miss.
  [[nodiscard]] bool IsValid(const void* object, std::string_view context) KZ_EXCLUDES(FLock);

  // Misses since the start of the process.
  [[nodiscard]] std::int64_t Misses() const noexcept { return FMisses.load(); }

  // "ValidObjects still contains <count> pointers: <names>", or empty when no object is left.
  [[nodiscard]] std::string Leftovers() KZ_EXCLUDES(FLock);

 private:
  TKZCriticalSection FLock{"ValidObjects"};
  std::map<const void*, std::string> FObjects KZ_GUARDED_BY(FLock);
  std::atomic<std::int64_t> FMisses = 0;  // Atomic: read without the lock.
};

// The one registry; never freed, since threads may ask until the very end.
[[nodiscard]] TValidObjects& ValidObjects();

// Keeps an object registered for as long as it lives itself.
// Threads: IsValid by any, the rest by the object's owner.
class TRegistration {
 public:
  TRegistration(const void* object, std::string name) : FObject(object) {
    ValidObjects().Register(object, std::move(name));
  }
  ~TRegistration() { End(); }
  TRegistration(const TRegistration&) = delete;
  TRegistration& operator=(const TRegistration&) = delete;

  // Takes the object out of the registry now.
  void End() {
    FRegistered.store(false);
    ValidObjects().Unregister(FObject);
  }

  // As ValidObjects().IsValid, without the registry's lock while the object is registered.
  [[nodiscard]] bool IsValid(std::string_view context) const {
    return FRegistered.load() || ValidObjects().IsValid(FObject, context);
  }

 private:
  const void* const FObject;
  std::atomic<bool> FRegistered = true;  // Atomic: asked by any thread.
};

// Writes a diagnostic message of the transport: the time, " KZUnixPipes: " and the text.
void WritePipeDiagnostic(std::string_view text);

// In a catch block: writes such a line, "<where>: <message>", and reports the exception.
void ReportPipeException(const std::string& where);

}  // namespace guardian
