// The Guardian as it is, but for a watchdog by a clock that runs as fast as SOAK_FACTOR says and
// that follows the orders in the file that SOAK_ORDERS names.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "common/Console.h"
#include "common/Exceptions.h"
#include "common/FileDescriptor.h"
#include "common/Settings.h"
#include "guardian/GuardianMain.h"
#include "soak/OrderedClock.h"

namespace guardian {
namespace {

const TClockOrders& MapOrders(const std::string& path) {
  const TFileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) throw ESystemError("open", path, errno);
  const void* orders = ::mmap(nullptr, sizeof(TClockOrders), PROT_READ, MAP_SHARED, file.Get(), 0);
  if (orders == MAP_FAILED) throw ESystemError("mmap", path, errno);
  return *static_cast<const TClockOrders*>(orders);
}

// On purpose: what loses these must be found out.
void Leak() {
  constexpr std::size_t kMebibyte = 1'048'576;
  static_cast<void>(::dup(STDOUT_FILENO));
  std::memset(::operator new(kMebibyte), 1, kMebibyte);
  std::thread([] { SystemClock().Sleep(std::chrono::hours(1)); }).detach();
}

std::string Variable(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr) throw KZException(std::string("Not set: ") + name);
  return value;
}

}  // namespace

TOrderedClock::TOrderedClock(std::int64_t factor, const std::string& ordersFile)
    : FFast(factor), FOrders(MapOrders(ordersFile)) {}

TDateTime TOrderedClock::Step() const {
  for (std::int64_t leaked = FLeaked; leaked < FOrders.Leaks.load(); leaked = FLeaked) {
    if (FLeaked.compare_exchange_strong(leaked, leaked + 1)) Leak();
  }
  return static_cast<TDateTime>(FOrders.WallStepSec.load()) * kSecond;
}

}  // namespace guardian

int main(int argc, char** argv) {
  try {
    guardian::TOrderedClock clock(std::stoll(guardian::Variable("SOAK_FACTOR")),
                                  guardian::Variable("SOAK_ORDERS"));
    guardian::InitSettings(argc, argv);
    return guardian::GuardianMain(clock);
  } catch (...) {
    guardian::PrintLine("SoakGuardian: " + guardian::CurrentExceptionMessage());
    return EXIT_FAILURE;
  }
}
