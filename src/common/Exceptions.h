#pragma once

#include <cstddef>
#include <exception>
#include <span>
#include <string>
#include <vector>

namespace guardian {

// Return addresses, innermost first.
using TStackAddresses = std::vector<const void*>;

// Fills the array with the calling thread's return addresses and returns how many there are. It
// leaves out itself and the given number of callers. Async-signal-safe from its second call on.
[[nodiscard]] std::size_t CaptureStack(std::span<const void*> frames, std::size_t skip) noexcept;

// The readable form of a mangled name; any other text is returned unchanged.
[[nodiscard]] std::string Demangled(const char* name);

// The base of every exception raised here: its message, and where it was raised.
// Threads: immutable after construction; std::exception_ptr may carry it across threads.
class KZException : public std::exception {
 public:
  explicit KZException(std::string message);

  [[nodiscard]] const char* what() const noexcept override { return FMessage.c_str(); }
  [[nodiscard]] const std::string& Message() const noexcept { return FMessage; }

  // The name of the most derived class without its namespace, as in "SoftException".
  [[nodiscard]] std::string ClassName() const;

  // The address in the code that raised it; null when no stack could be taken.
  [[nodiscard]] const void* Address() const noexcept;

  // The stack at construction, starting with the frame that raised it.
  [[nodiscard]] const TStackAddresses& Stack() const noexcept { return FStack; }

 private:
  std::string FMessage;
  TStackAddresses FStack;
};

// An expected failure: reported by its message alone, never as an error.
class SoftException : public KZException {
 public:
  using KZException::KZException;
};

// A failed system call. The message reads "<operation> <object>: <system text> (errno <n>)".
class ESystemError : public KZException {
 public:
  ESystemError(const std::string& operation, const std::string& object, int errorNumber);
};

// "<system text> (errno <n>)".
[[nodiscard]] std::string SystemErrorText(int errorNumber);

// The class name of any exception: a KZException's ClassName, else the demangled type name with its
// namespace.
[[nodiscard]] std::string ExceptionClassName(const std::exception& error);

// What a report says of an exception.
struct TExceptionDetails {
  std::string ClassName;
  std::string Message;
  bool Soft = false;            // A SoftException.
  bool StackOfCatcher = false;  // The place of the throw is unknown; the stack is the caller's.
  TStackAddresses Stack;
};

// The details of an exception of any kind. The stack is the KZException's own, for another
// exception the stack of its throw, in whichever thread that was; else the stack of this call. The
// throws inside a C++ library that is linked dynamically are never known, nor is a throw while 64
// other exceptions live.
[[nodiscard]] TExceptionDetails DescribeException(const std::exception_ptr& error);

// The message of the exception that is being handled, whatever its type; "out of memory" when there
// is none for the message. Call it in a catch block only.
[[nodiscard]] std::string CurrentExceptionMessage() noexcept;

// The message of an exception that was carried here, whatever its type.
[[nodiscard]] std::string MessageOf(std::exception_ptr error) noexcept;

}  // namespace guardian
