#include "common/Exceptions.h"

#include <cxxabi.h>

#include <boost/stacktrace/safe_dump_to.hpp>
#include <cstdlib>
#include <memory>
#include <system_error>
#include <typeinfo>
#include <utility>

namespace guardian {
namespace {

constexpr std::size_t kMaxFrames = 64;

std::string Demangled(const char* name) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> text(
      abi::__cxa_demangle(name, nullptr, nullptr, &status), &std::free);
  return status == 0 ? text.get() : name;
}

// Skips the given number of frames besides its own.
[[gnu::noinline]] TStackAddresses CaptureStack(std::size_t skip) {
  const void* frames[kMaxFrames];
  const std::size_t count = boost::stacktrace::safe_dump_to(skip + 1, frames, sizeof(frames));
  // The dump ends with a null frame where it fits.
  TStackAddresses stack(frames, frames + count);
  while (!stack.empty() && stack.back() == nullptr) stack.pop_back();
  return stack;
}

}  // namespace

KZException::KZException(std::string message)
    : FMessage(std::move(message)), FStack(CaptureStack(1)) {}

std::string KZException::ClassName() const {
  const std::string name = Demangled(typeid(*this).name());
  const std::size_t scope = name.rfind("::");
  return scope == std::string::npos ? name : name.substr(scope + 2);
}

const void* KZException::Address() const noexcept {
  return FStack.empty() ? nullptr : FStack.front();
}

ESystemError::ESystemError(const std::string& operation, const std::string& object, int errorNumber)
    : KZException(operation + " " + object + ": " + SystemErrorText(errorNumber)),
      FErrorNumber(errorNumber) {}

std::string SystemErrorText(int errorNumber) {
  return std::generic_category().message(errorNumber) + " (errno " + std::to_string(errorNumber) +
         ")";
}

std::string ExceptionClassName(const std::exception& error) {
  if (const auto* own = dynamic_cast<const KZException*>(&error)) return own->ClassName();
  return Demangled(typeid(error).name());
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
