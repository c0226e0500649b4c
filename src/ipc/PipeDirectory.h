#pragma once

#include <string>

namespace guardian {

// The folder of the socket files: what was set; else, fixed at the first use, the mutex directory
// of the settings, or "/tmp" when that is empty. An empty text sets it back to that. Threads: any.
void SetPipeDirectory(std::string directory);
[[nodiscard]] std::string PipeDirectory();

// The pipe directory, "/" and the name. Throws KZException when it is too long for a socket.
[[nodiscard]] std::string FullPipeNameOf(const std::string& pipeName);

}  // namespace guardian
