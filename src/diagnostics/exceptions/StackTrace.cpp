#include "diagnostics/exceptions/StackTrace.h"

#include <backtrace.h>
#include <dlfcn.h>
#include <link.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <exception>

#include "common/Exceptions.h"
#include "common/Mutex.h"
#include "common/Settings.h"
#include "common/Texts.h"
#include "common/Thread.h"

namespace guardian {
namespace {

// A name that cannot be read stays unknown.
void IgnoreError(void* /*context*/, const char* /*message*/, int /*errorNumber*/) {}

// Guards what the library has read so far: each look-up adds to it.
TMutex stateLock;

// The thread that holds the lock for a report, else 0. Atomic: each thread looks for itself.
constinit std::atomic<std::int32_t> lookingUp = 0;

// Reads nothing yet. Never freed, like everything that the library reads later.
backtrace_state* State() noexcept {
  constexpr int kNotThreaded = 0;
  static backtrace_state* const state =
      ::backtrace_create_state(nullptr, kNotThreaded, &IgnoreError, nullptr);
  return state;
}

// The debug information has inlined functions, files and lines. But for a function without a
// linkage name (one of an anonymous namespace) it gives only the last part of the function's name.
// So the function that holds the address, which comes last, gets its name from the symbol table.
struct TVisit {
  void (*Visit)(void* context, const TCodePlace& place);
  void* Context;
  TCodePlace Last;  // Not handed on yet.

  void HandOn() const {
    if (Last.Function != nullptr) Visit(Context, Last);
  }
};

int VisitWithLine(void* visit, std::uintptr_t /*address*/, const char* file, int line,
                  const char* function) {
  auto& each = *static_cast<TVisit*>(visit);
  each.HandOn();
  each.Last = {.Function = function, .File = file, .Line = line};
  return 0;
}

void NameLast(void* visit, std::uintptr_t /*address*/, const char* name, std::uintptr_t /*value*/,
              std::uintptr_t /*size*/) {
  if (name != nullptr) static_cast<TVisit*>(visit)->Last.Function = name;
}

std::string HexText(std::uintptr_t number, const char* format) {
  char text[32];
  std::snprintf(text, sizeof(text), format, number);
  return text;
}

// The module that the code is in, and its place there in the form that addr2line takes; empty when
// the code is in no module.
std::string ModulePlace(std::uintptr_t code) {
  Dl_info info{};
  link_map* module = nullptr;
  // NOLINTNEXTLINE(performance-no-int-to-ptr): code is where it is.
  const auto* const address = reinterpret_cast<const void*>(code);
  void* const found = &module;
  if (::dladdr1(address, &info, static_cast<void**>(found), RTLD_DL_LINKMAP) == 0) return {};
  const std::string path = *module->l_name != '\0' ? module->l_name : Settings().OwnExecutablePath;
  return "(" + std::string(FileNameOf(path)) + HexText(code - module->l_addr, "+0x%zx)");
}

void VisitLocked(std::uintptr_t address, void (*visit)(void* context, const TCodePlace& place),
                 void* context) noexcept KZ_REQUIRES(stateLock) {
  backtrace_state* const state = State();
  if (state == nullptr) return;
  TVisit each{.Visit = visit, .Context = context, .Last = {}};
  ::backtrace_pcinfo(state, address, &VisitWithLine, &IgnoreError, &each);
  ::backtrace_syminfo(state, address, &NameLast, &IgnoreError, &each);
  each.HandOn();
}

struct TFrameLines {
  std::string Before;
  std::string After;
  std::vector<std::string>& Lines;
  std::exception_ptr Failure;
};

void AddLine(TFrameLines& frame, const TCodePlace& place) {
  std::string line = frame.Before + Demangled(place.Function);
  if (place.File != nullptr) {
    line.append(" at ").append(place.File).append(":").append(std::to_string(place.Line));
  }
  frame.Lines.push_back(line + " " + frame.After);
}

// Lets no exception into the library, which is written in C: it would end the process, and with the
// lock held.
void TryAddLine(void* frame, const TCodePlace& place) {
  auto& each = *static_cast<TFrameLines*>(frame);
  try {
    AddLine(each, place);
  } catch (...) {
    each.Failure = std::current_exception();
  }
}

// Nothing while the calling thread itself looks an address up, as when that ends the process: the
// last words must not wait for their own thread.
void VisitForReport(std::uintptr_t address, TFrameLines& frame) {
  if (lookingUp.load() == CurrentThreadId()) return;
  const TMutexLock lock(stateLock);
  lookingUp.store(CurrentThreadId());
  VisitLocked(address, &TryAddLine, &frame);
  lookingUp.store(0);
}

}  // namespace

void TryVisitCodePlaces(std::uintptr_t address,
                        void (*visit)(void* context, const TCodePlace& place),
                        void* context) noexcept {
  // A signal may come while its own thread looks an address up.
  if (!stateLock.TryLock()) return;
  VisitLocked(address, visit, context);
  stateLock.Unlock();
}

void PrepareCodePlaces() noexcept { State(); }

std::vector<std::string> StackTraceLines(std::span<const void* const> returnAddresses) {
  std::vector<std::string> lines;
  for (std::size_t i = 0; i < returnAddresses.size(); ++i) {
    // The call stands before the address to which it returns.
    const auto call = reinterpret_cast<std::uintptr_t>(returnAddresses[i]) - 1;
    TFrameLines frame{
        .Before = "#" + std::to_string(i) + " " + AddressText(returnAddresses[i]) + " ",
        .After = ModulePlace(call),
        .Lines = lines,
        .Failure = {}};
    const std::size_t before = lines.size();
    VisitForReport(call, frame);
    if (frame.Failure) std::rethrow_exception(frame.Failure);
    if (lines.size() == before) lines.push_back(frame.Before + frame.After);
  }
  return lines;
}

std::string AddressText(const void* address) {
  return HexText(reinterpret_cast<std::uintptr_t>(address), "0x%016zx");
}

}  // namespace guardian
