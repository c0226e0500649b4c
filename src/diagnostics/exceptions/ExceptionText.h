#pragma once

#include <string>

#include "common/Clock.h"
#include "common/Exceptions.h"

namespace guardian {

// The two forms of an exception's report. They differ on purpose in the number of blanks after
// "Executable:", and in the line "Where: ", which only the form of the log has.
// Threads: any.

struct TExceptionContext {
  const TExceptionDetails& Details;
  const std::string& Where;
  const TClock& Clock;
};

// For the error log and the debug output. An empty thread report is left out.
[[nodiscard]] std::string ExceptionStringForm(const TExceptionContext& context,
                                              const std::string& threadReport);

// For the exceptions log, as one piece that ends in a line feed. A line stands for an empty thread
// report: it was omitted.
[[nodiscard]] std::string ExceptionFileForm(const TExceptionContext& context,
                                            const std::string& heading,
                                            const std::string& threadReport);

}  // namespace guardian
