#include "common/Exceptions.h"

#include <cxxabi.h>

#include <array>
#include <atomic>
#include <boost/stacktrace/safe_dump_to.hpp>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <system_error>
#include <typeinfo>
#include <utility>

namespace guardian {
namespace {

constexpr std::size_t kMaxFrames = 64;

[[gnu::noinline]] TStackAddresses CapturedStack(std::size_t skip) {
  std::array<const void*, kMaxFrames> frames;
  const std::size_t count = CaptureStack(frames, skip + 1);
  // In parentheses: braces would make a vector of these two pointers.
  TStackAddresses stack(frames.data(), frames.data() + count);
  return stack;
}

using TDestroy = void (*)(void* object);

// An exception that lives, and the stack of its throw.
struct TLiveThrow {
  // Null while the place is free. Atomic: set last by the thread that throws, and read by every
  // thread that looks for its own exception; the fields below do not change while it is set.
  std::atomic<const void*> Object;
  TDestroy Destroy;
  std::size_t Count;
  std::array<const void*, 48> Frames;
};

// Stands in a place that is being filled in.
constexpr char kTaken = 0;

// Exceptions that live at the same time beyond this number have no stack of their throw.
constinit std::array<TLiveThrow, 64> liveThrows{};

TLiveThrow* FindLiveThrow(const void* object) noexcept {
  for (TLiveThrow& each : liveThrows) {
    if (each.Object.load(std::memory_order_acquire) == object) return &each;
  }
  return nullptr;
}

// The C++ library calls this at the exception's end, in whichever thread that comes: from then on
// another exception may have the address.
void DestroyNoted(void* object) {
  TLiveThrow* const noted = FindLiveThrow(object);
  const TDestroy destroy = noted->Destroy;
  noted->Object.store(nullptr, std::memory_order_release);
  if (destroy != nullptr) destroy(object);
}

// Returns what is to destroy the object.
[[gnu::noinline]] TDestroy NoteThrow(const void* object, TDestroy destroy) noexcept {
  for (TLiveThrow& each : liveThrows) {
    const void* none = nullptr;
    if (!each.Object.compare_exchange_strong(none, &kTaken, std::memory_order_acquire)) continue;
    each.Destroy = destroy;
    // Leaves out this function and the wrapper of the C++ library's throw.
    each.Count = CaptureStack(each.Frames, 2);
    each.Object.store(object, std::memory_order_release);
    return &DestroyNoted;
  }
  return destroy;
}

// The object that the pointer keeps alive: its address is all that the pointer consists of.
const void* ObjectOf(const std::exception_ptr& error) noexcept {
  static_assert(sizeof(error) == sizeof(void*));
  const void* object = nullptr;
  std::memcpy(&object, static_cast<const void*>(&error), sizeof(object));
  return object;
}

// Empty for an exception that the C++ library itself threw.
TStackAddresses StackOfThrow(const std::exception_ptr& error) {
  const TLiveThrow* const noted = FindLiveThrow(ObjectOf(error));
  if (noted == nullptr) return {};
  // In parentheses: braces would make a vector of these two pointers.
  TStackAddresses stack(noted->Frames.data(), noted->Frames.data() + noted->Count);
  return stack;
}

TExceptionDetails DetailsOf(const std::exception& error) {
  TExceptionDetails details;
  details.ClassName = ExceptionClassName(error);
  details.Message = error.what();
  if (const auto* own = dynamic_cast<const KZException*>(&error)) {
    details.Soft = dynamic_cast<const SoftException*>(own) != nullptr;
    details.Stack = own->Stack();
  }
  return details;
}

// The note is short enough to need no memory of its own.
std::string TextOrNote(const char* text) noexcept try { return text; } catch (...) {
  return "out of memory";
}

}  // namespace

// The linker leads every throw here (--wrap), and the second name to the C++ library. So the stack
// of a foreign exception is known too; by the time it is caught, that stack is gone.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): the linker's names.
[[noreturn]] void __real___cxa_throw(void* object, std::type_info* type, void (*destroy)(void*));
[[noreturn]] void __wrap___cxa_throw(void* object, std::type_info* type, void (*destroy)(void*));

void __wrap___cxa_throw(void* object, std::type_info* type, void (*destroy)(void*)) {
  __real___cxa_throw(object, type, NoteThrow(object, destroy));
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming): as above.
}

[[gnu::noinline]] std::size_t CaptureStack(std::span<const void*> frames,
                                           std::size_t skip) noexcept {
  std::size_t count = boost::stacktrace::safe_dump_to(skip + 1, frames.data(), frames.size_bytes());
  // The dump ends with a null frame where it fits.
  while (count > 0 && frames[count - 1] == nullptr) --count;
  return count;
}

std::string Demangled(const char* name) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> text(
      abi::__cxa_demangle(name, nullptr, nullptr, &status), &std::free);
  return status == 0 ? text.get() : name;
}

KZException::KZException(std::string message)
    : FMessage(std::move(message)), FStack(CapturedStack(1)) {}

std::string KZException::ClassName() const {
  const std::string name = Demangled(typeid(*this).name());
  const std::size_t scope = name.rfind("::");
  return scope == std::string::npos ? name : name.substr(scope + 2);
}

const void* KZException::Address() const noexcept {
  return FStack.empty() ? nullptr : FStack.front();
}

ESystemError::ESystemError(const std::string& operation, const std::string& object, int errorNumber)
    : KZException(operation + " " + object + ": " + SystemErrorText(errorNumber)) {}

std::string SystemErrorText(int errorNumber) {
  return std::generic_category().message(errorNumber) + " (errno " + std::to_string(errorNumber) +
         ")";
}

std::string ExceptionClassName(const std::exception& error) {
  if (const auto* own = dynamic_cast<const KZException*>(&error)) return own->ClassName();
  return Demangled(typeid(error).name());
}

TExceptionDetails DescribeException(const std::exception_ptr& error) {
  TExceptionDetails details;
  try {
    if (error) std::rethrow_exception(error);
    details.Message = "no exception";
  } catch (const std::exception& known) {
    details = DetailsOf(known);
  } catch (...) {
    const std::type_info* type = abi::__cxa_current_exception_type();
    details.ClassName = type != nullptr ? Demangled(type->name()) : "unknown";
    details.Message = CurrentExceptionMessage();
  }
  if (error && details.Stack.empty()) details.Stack = StackOfThrow(error);
  details.StackOfCatcher = details.Stack.empty();
  if (details.StackOfCatcher) details.Stack = CapturedStack(1);
  return details;
}

std::string CurrentExceptionMessage() noexcept {
  try {
    throw;
  } catch (const std::exception& error) {
    return TextOrNote(error.what());
  } catch (...) {
    return TextOrNote("unknown exception");
  }
}

std::string MessageOf(std::exception_ptr error) noexcept {
  try {
    std::rethrow_exception(std::move(error));
  } catch (...) {
    return CurrentExceptionMessage();
  }
}

}  // namespace guardian
