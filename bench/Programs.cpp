#include "Programs.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "Measure.h"
#include "support/Program.h"

namespace guardian {
namespace {

// Starts the program without its output.
pid_t Spawn(std::vector<std::string>& arguments) {
  std::vector<char*> pointers;
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (const int handle : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    posix_spawn_file_actions_addopen(&actions, handle, "/dev/null", O_RDWR, 0);
  }
  pid_t pid = 0;
  const int error = ::posix_spawn(&pid, pointers[0], &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::system_error(error, std::generic_category(), arguments.front());
  return pid;
}

sockaddr_in AddressOf(in_addr_t host, std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(host);
  return address;
}

double ToSeconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

// The length of the whole answer, once its head is complete; npos before.
std::size_t LengthOfAnswer(const std::string& answer) {
  constexpr std::string_view kHeadEnd = "\r\n\r\n";
  constexpr std::string_view kLength = "Content-Length: ";
  const std::size_t headEnd = answer.find(kHeadEnd);
  const std::size_t length = answer.find(kLength);
  if (headEnd == std::string::npos || length > headEnd) return std::string::npos;
  return headEnd + kHeadEnd.size() + std::stoul(answer.substr(length + kLength.size()));
}

}  // namespace

TRunCost RunToEnd(std::vector<std::string> arguments) {
  int status = 0;
  rusage usage{};
  TRunCost cost;
  cost.Seconds = Seconds([&] {
    const pid_t pid = Spawn(arguments);
    if (::wait4(pid, &status, 0, &usage) != pid) status = -1;
  });
  if (status != 0) throw std::runtime_error(arguments.front() + " failed");
  cost.ProcessorSeconds = ToSeconds(usage.ru_utime) + ToSeconds(usage.ru_stime);
  return cost;
}

std::string OutputOf(std::vector<std::string> arguments) {
  const std::string name = arguments.front();
  TProgram program(std::move(arguments));
  if (program.Wait() != 0) throw std::runtime_error(name + " failed: " + program.Output());
  return program.Output();
}

double ProcessorSecondsOf(pid_t process) {
  clockid_t clock{};
  timespec time{};
  if (::clock_getcpuclockid(process, &clock) != 0 || ::clock_gettime(clock, &time) != 0) {
    throw std::runtime_error("the process has ended");
  }
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double ChildSecondsOf(pid_t process) {
  constexpr int kFieldsBefore = 13;  // Counted from the process's name.
  std::string stat;
  std::getline(std::ifstream("/proc/" + std::to_string(process) + "/stat"), stat, '\0');
  std::istringstream fields(stat.substr(stat.rfind(')') + 1));
  std::string skipped;
  for (int i = 0; i < kFieldsBefore; ++i) fields >> skipped;
  double user = 0;
  double system = 0;
  fields >> user >> system;
  if (!fields) throw std::runtime_error("the process has ended");
  return (user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

double SwitchesOf(pid_t process) {
  double switches = 0;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
    std::ifstream file(task.path() / "status");
    std::string word;
    double count = 0;
    while (file >> word && word != "voluntary_ctxt_switches:") continue;
    if (file >> count) switches += count;
  }
  return switches;
}

TMemory MemoryOf(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/smaps_rollup");
  TMemory memory;
  std::string line;
  while (std::getline(file, line)) {
    std::istringstream words(line);
    std::string name;
    double kilobytes = 0;
    words >> name >> kilobytes;
    if (name == "Rss:") memory.ResidentMb = kilobytes / 1024;
    if (name == "Pss:") memory.ProportionalMb = kilobytes / 1024;
    if (name == "Private_Dirty:") memory.PrivateDirtyMb = kilobytes / 1024;
  }
  if (memory.ProportionalMb == 0) throw std::runtime_error("the memory cannot be read");
  return memory;
}

int TryConnect(std::uint16_t port, in_addr_t from) {
  const sockaddr_in own = AddressOf(from, 0);
  const sockaddr_in address = AddressOf(INADDR_LOOPBACK, port);
  const int connection = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int late = 1;  // The port is chosen when it connects.
  ::setsockopt(connection, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &late, sizeof(late));
  if (::bind(connection, reinterpret_cast<const sockaddr*>(&own), sizeof(own)) == 0 &&
      ::connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
    return connection;
  }
  ::close(connection);
  return -1;
}

std::string RawAnswer(std::uint16_t port, const std::string& path) {
  const int connection = TryConnect(port);
  if (connection < 0) throw std::runtime_error("nobody answers on the port");
  const std::string request = "GET " + path + " HTTP/1.1\r\nHost: localhost\r\n\r\n";
  std::string answer;
  char bytes[65'536];
  ssize_t got = ::send(connection, request.data(), request.size(), MSG_NOSIGNAL);
  while (got > 0 && answer.size() < LengthOfAnswer(answer)) {
    got = ::read(connection, bytes, sizeof(bytes));
    if (got > 0) answer.append(bytes, static_cast<std::size_t>(got));
  }
  ::close(connection);
  if (answer.size() != LengthOfAnswer(answer)) throw std::runtime_error("half an answer");
  return answer;
}

}  // namespace guardian
