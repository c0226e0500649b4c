#pragma once

#include <exception>
#include <string>
#include <vector>

namespace guardian {

// Return addresses, innermost first.
using TStackAddresses = std::vector<const void*>;

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

  [[nodiscard]] int ErrorNumber() const noexcept { return FErrorNumber; }

 private:
  int FErrorNumber;
};

// "<system text> (errno <n>)".
[[nodiscard]] std::string SystemErrorText(int errorNumber);

// The class name of any exception: KZException knows its own; of a foreign one the demangled type
// name with its namespace.
[[nodiscard]] std::string ExceptionClassName(const std::exception& error);

// The message of the exception that is being handled, whatever its type. Call it in a catch block
// only.
[[nodiscard]] std::string CurrentExceptionMessage() noexcept;

// The message of an exception that was carried here, whatever its type.
[[nodiscard]] std::string MessageOf(std::exception_ptr error) noexcept;

}  // namespace guardian
