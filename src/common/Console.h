#pragma once

#include <string_view>

namespace guardian {

// Writes the text and a line feed to standard output in one call and flushes; a standard output
// that is closed or full loses the line, since there is no better place to say so.
// Threads: any; lines of different threads never mix.
void PrintLine(std::string_view text);

}  // namespace guardian
