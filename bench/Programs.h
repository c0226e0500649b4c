#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace guardian {

// Runs real programs and measures what they cost. Every function throws std::runtime_error when
// something fails.

// The cost of a program from its start to its end. The processor time includes its children.
struct TRunCost {
  double Seconds = 0;
  double ProcessorSeconds = 0;
};

// Runs the program without its output; its exit code must be 0.
TRunCost RunToEnd(std::vector<std::string> arguments);

// Runs the program and returns its output; its exit code must be 0.
std::string OutputOf(std::vector<std::string> arguments);

// The processor time of a running process without its children, in seconds.
double ProcessorSecondsOf(pid_t process);

// The processor time of the process's ended children and of their children, in seconds; exact to a
// few hundredths.
double ChildSecondsOf(pid_t process);

// How often the threads that the process has now gave the processor up by themselves.
double SwitchesOf(pid_t process);

struct TMemory {
  double ResidentMb = 0;
  double ProportionalMb = 0;
  double PrivateDirtyMb = 0;
};

TMemory MemoryOf(pid_t process);

// Connects to the port of this machine, from this loopback address; -1 while no program listens.
int TryConnect(std::uint16_t port, in_addr_t from = INADDR_LOOPBACK);

// Sends a GET of the path and returns the whole answer, with its head.
std::string RawAnswer(std::uint16_t port, const std::string& path);

}  // namespace guardian
