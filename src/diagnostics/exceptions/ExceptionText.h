#pragma once

#include <string>

#include "common/Clock.h"
#include "common/Exceptions.h"

namespace guardian {

// The two forms of an exception's report. They differ on purpose in the blanks behind
// "Executable:", and in the line "Where: ", which only the form of the log has. Threads: any.

struct TExceptionContext {
  const TExceptionDetails& Details;
  const std::string& Where;
  const TClock& Clock;
};

// For the error log and the like. The thread report comes behind the stack, empty for none.
[[nodiscard]] std::string ExceptionStringForm(const TExceptionContext& context,
                                              const std::string& threadReport);

// For the exceptions log, as one piece that ends in a line feed. Without a thread report it says
// that it was omitted.
[[nodiscard]] std::string ExceptionFileForm(const TExceptionContext& context,
                                            const std::string& heading,
                                            const std::string& threadReport);

}  // namespace guardian
