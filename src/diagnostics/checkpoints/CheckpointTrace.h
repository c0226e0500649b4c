#pragma once

#include <string>
#include <string_view>

namespace guardian {

// The trace file of one thread's checkpoints, in the temporary folder. It is open during a write
// only; failures of the file are ignored. For other programs of the maker: the Guardian leaves the
// traces switched off.
// Owner: the thread.
// Threads: its thread only.
class TCheckpointTrace {
 public:
  // Appends the time of day and the text as one line; the first write makes the file and its
  // header. Throws std::bad_alloc only.
  void Write(std::string_view text);

 private:
  void CreateFile();

  std::string FFileName;  // Empty until the file has been made.
};

}  // namespace guardian
