#include "common/Exceptions.h"

#include <cxxabi.h>

#include <array>
#include <boost/stacktrace/safe_dump_to.hpp>
#include <cstdlib>
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

// One throw of the thread.
struct TThrow {
  const void* Object;
  const std::type_info* Type;
  std::size_t Count;
  std::array<const void*, 48> Frames;
};

// The thread's last throws. More than one, since the report of an exception may itself throw and
// catch.
struct TLastThrows {
  std::array<TThrow, 4> Throws;
  std::size_t Next;
};

constinit thread_local TLastThrows tLastThrows{};

[[gnu::noinline]] void NoteThrow(const void* object, const std::type_info* type) noexcept {
  TThrow& noted = tLastThrows.Throws[tLastThrows.Next];
  tLastThrows.Next = (tLastThrows.Next + 1) % tLastThrows.Throws.size();
  noted.Object = object;
  noted.Type = type;
  // Leaves out this function and the wrapper of the C++ library's throw.
  noted.Count = CaptureStack(noted.Frames, 2);
}

// Finds the throw by the object's address or, when that is null since nobody knows it, by the type
// alone. Returns an empty stack for an unknown throw.
TStackAddresses StackOfThrow(const void* object, const std::type_info* type) {
  const std::size_t size = tLastThrows.Throws.size();
  for (std::size_t back = 1; back <= size; ++back) {
    const TThrow& noted = tLastThrows.Throws[(tLastThrows.Next + size - back) % size];
    const bool same = type != nullptr && noted.Type == type;
    if (!same || (object != nullptr && noted.Object != object)) continue;
    TStackAddresses stack(noted.Frames.data(), noted.Frames.data() + noted.Count);
    return stack;
  }
  return {};
}

TExceptionDetails DetailsOf(const std::exception& error) {
  TExceptionDetails details;
  details.ClassName = ExceptionClassName(error);
  details.Message = error.what();
  if (const auto* own = dynamic_cast<const KZException*>(&error)) {
    details.Soft = dynamic_cast<const SoftException*>(own) != nullptr;
    details.Stack = own->Stack();
  } else {
    details.Stack = StackOfThrow(dynamic_cast<const void*>(&error), &typeid(error));
  }
  return details;
}

}  // namespace

// The linker leads every throw here (--wrap), and the second name to the C++ library. So the stack
// of a foreign exception is known too; by the time it is caught, that stack is gone.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): the linker's names.
[[noreturn]] void __real___cxa_throw(void* object, std::type_info* type, void (*destroy)(void*));
[[noreturn]] void __wrap___cxa_throw(void* object, std::type_info* type, void (*destroy)(void*));

void __wrap___cxa_throw(void* object, std::type_info* type, void (*destroy)(void*)) {
  NoteThrow(object, type);
  __real___cxa_throw(object, type, destroy);
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
    details.Stack = StackOfThrow(nullptr, type);
  }
  details.StackOfCatcher = details.Stack.empty();
  if (details.StackOfCatcher) details.Stack = CapturedStack(1);
  return details;
}

std::string CurrentExceptionMessage() noexcept try { throw; } catch (const std::exception& error) {
  return error.what();
} catch (...) {
  return "unknown exception";
}

std::string MessageOf(std::exception_ptr error) noexcept {
  try {
    std::rethrow_exception(std::move(error));
  } catch (...) {
    return CurrentExceptionMessage();
  }
}

}  // namespace guardian
