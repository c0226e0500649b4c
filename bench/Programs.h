#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace guardian {

// Real programs and their costs. All of these throw std::runtime_error for what does not go as it
// should.

// What a program did that ran to its end, with its output thrown away.
struct TRunCost {
  double Seconds = 0;           // From its start to its end.
  double ProcessorSeconds = 0;  // Its own and that of its children.
};

// Runs it; its exit code must be 0.
TRunCost RunToEnd(std::vector<std::string> arguments);

// Runs it; what it printed.
std::string OutputOf(std::vector<std::string> arguments);

// The processor time of a running process alone, in seconds.
double ProcessorSecondsOf(pid_t process);

// That of its children that have ended, and of theirs, to some hundredths of a second.
double ChildSecondsOf(pid_t process);

struct TMemory {
  double ResidentMb = 0;
  double ProportionalMb = 0;
};

TMemory MemoryOf(pid_t process);

// A connection to the port of this machine; -1 while nobody answers there.
int TryConnect(std::uint16_t port);

// The whole answer to a GET of the path, its head included.
std::string RawAnswer(std::uint16_t port, const std::string& path);

}  // namespace guardian
