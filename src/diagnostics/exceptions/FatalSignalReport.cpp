#include "diagnostics/exceptions/FatalSignalReport.h"

#include <link.h>
#include <poll.h>
#include <signal.h>
#include <sys/uio.h>
#include <ucontext.h>
#include <unistd.h>
#include <unwind.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cassert>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

#include "common/Clock.h"
#include "common/Exceptions.h"
#include "common/FatalSignals.h"
#include "common/FileDescriptor.h"
#include "common/MainThread.h"
#include "common/Settings.h"
#include "common/TextFile.h"
#include "common/Texts.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/checkpoints/CheckpointRecord.h"
#include "diagnostics/exceptions/StackTrace.h"

// The C++ library's demangler that allocates nothing. No header declares it, and only the static
// library has it; null with the shared one.
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming): the library's name.
extern "C" [[gnu::weak]] int __gcclibcxx_demangle_callback(
    const char* mangled, void (*callback)(const char* text, std::size_t length, void* context),
    void* context);

#if defined(__arm__)
// What the unwinder of this processor calls with the registers of its caller, in this layout. No
// header declares it.
struct TArmRegisters {
  std::uint32_t NotSaved;
  std::array<std::uint32_t, 16> Core;
};
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming): the library's name.
extern "C" _Unwind_Reason_Code __gnu_Unwind_Backtrace(_Unwind_Trace_Fn trace, void* argument,
                                                      TArmRegisters* registers);
#endif

namespace guardian {
namespace {

constexpr std::size_t kMaxFrames = 64;

// A text of limited length; what does not fit is cut. Async-signal-safe.
class TSignalText {
 public:
  TSignalText& Add(std::string_view text) noexcept {
    const std::size_t length = std::min(text.size(), FBuffer.size() - FLength);
    std::memcpy(FBuffer.data() + FLength, text.data(), length);
    FLength += length;
    return *this;
  }
  TSignalText& Add(std::int64_t number, int minDigits = 1) noexcept {
    return AddNumber(number, 10, minDigits);
  }
  TSignalText& AddHex(std::uintptr_t number, int minDigits = 1) noexcept {
    return Add("0x").AddNumber(number, 16, minDigits);
  }
  [[nodiscard]] std::string_view View() const noexcept { return {FBuffer.data(), FLength}; }
  void Clear() noexcept { FLength = 0; }

 private:
  template <typename TNumber>
  TSignalText& AddNumber(TNumber number, int base, int minDigits) noexcept {
    std::array<char, 24> digits;
    const char* const end =
        std::to_chars(digits.data(), digits.data() + digits.size(), number, base).ptr;
    for (auto length = end - digits.data(); length < minDigits; ++length) Add("0");
    return Add(std::string_view(digits.data(), end));
  }

  std::array<char, 32'768> FBuffer{};
  std::size_t FLength = 0;
};

// A piece of loaded code. The pieces are listed at the installation: the handler that asks the
// loader for them could have to wait, and the addresses are to be in the log before that.
struct TModule {
  std::uintptr_t Bias;
  std::uintptr_t Begin;
  std::uintptr_t End;
  std::array<char, 64> Name;
};

// Everything is allocated from the start: a handler cannot allocate.
struct TReporter {
  // What has been replaced. Main thread only.
  std::array<struct sigaction, kFatalSignals.size()> Previous;
  std::array<bool, kFatalSignals.size()> Installed;

  // Log points to the name in use. To change it, the main thread writes the other one and then
  // sets the pointer to that.
  std::array<std::array<char, PATH_MAX>, 2> LogNames;
  std::atomic<const char*> Log;

  // Constant once the handlers are installed.
  std::array<TModule, 48> Modules;
  std::size_t ModuleCount;
  std::array<char, PATH_MAX> Executable;

  // Atomics: threads may fail at the same time. The first one reports, the others wait for it.
  std::atomic<bool> Begun;
  std::atomic<bool> Written;

  // Only the thread that reports uses it.
  TSignalText Text;
};

constinit TReporter reporter{};

// What is known of the fault.
struct TFault {
  int Signal;
  const siginfo_t* Info;

  // Where the thread was, and the return address of the innermost call as a register or the top of
  // the stack has it.
  std::uintptr_t Code;
  std::uintptr_t Caller;

  const mcontext_t* Machine;
};

std::string_view NameOf(int signal) noexcept {
  switch (signal) {
    case SIGSEGV:
      return "SIGSEGV";
    case SIGABRT:
      return "SIGABRT";
    case SIGBUS:
      return "SIGBUS";
    case SIGFPE:
      return "SIGFPE";
    case SIGILL:
      return "SIGILL";
    default:
      return "signal";
  }
}

// Reads through a system call, so that a bad address gives 0 instead of a fault.
[[maybe_unused]] std::uintptr_t ReadWord(std::uintptr_t address) noexcept {
  std::uintptr_t word = 0;
  const iovec to{.iov_base = &word, .iov_len = sizeof(word)};
  // NOLINTNEXTLINE(performance-no-int-to-ptr): a register holds it as a number.
  const iovec from{.iov_base = reinterpret_cast<void*>(address), .iov_len = sizeof(word)};
  return ::process_vm_readv(::getpid(), &to, 1, &from, 1, 0) == sizeof(word) ? word : 0;
}

TFault FaultOf(int signal, const siginfo_t* info, const void* context) noexcept {
  const auto& machine = static_cast<const ucontext_t*>(context)->uc_mcontext;
  TFault fault{.Signal = signal, .Info = info, .Code = 0, .Caller = 0, .Machine = &machine};
#if defined(__x86_64__)
  fault.Code = static_cast<std::uintptr_t>(machine.gregs[REG_RIP]);
  fault.Caller = ReadWord(static_cast<std::uintptr_t>(machine.gregs[REG_RSP]));
#elif defined(__aarch64__)
  fault.Code = machine.pc;
  fault.Caller = machine.regs[30];
#elif defined(__arm__)
  fault.Code = machine.arm_pc;
  fault.Caller = machine.arm_lr & ~1UL;  // The lowest bit is the kind of code there.
#endif
  return fault;
}

const TModule* ModuleOf(std::uintptr_t code) noexcept {
  for (const TModule& module : std::span(reporter.Modules).first(reporter.ModuleCount)) {
    if (code >= module.Begin && code < module.End) return &module;
  }
  return nullptr;
}

void AddPlace(TSignalText& text, std::uintptr_t code) noexcept {
  text.AddHex(code, 16);
  const TModule* const module = ModuleOf(code);
  if (module == nullptr) return;
  text.Add(" (").Add(module->Name.data()).Add("+").AddHex(code - module->Bias).Add(")");
}

// In UTC, since the C library takes locks for the local time.
void AddUtcTime(TSignalText& text) noexcept {
  constexpr int kSecondsPerDay = 86'400;
  const auto seconds = std::llround(SystemClock().UtcNow() * kSecondsPerDay);
  const std::chrono::year_month_day date{
      std::chrono::sys_days(std::chrono::days(seconds / kSecondsPerDay - kUnixEpochDays))};
  const auto time = seconds % kSecondsPerDay;
  text.Add(int{date.year()}, 4).Add("-").Add(unsigned{date.month()}, 2).Add("-");
  text.Add(unsigned{date.day()}, 2).Add(" ").Add(time / 3600, 2).Add(":");
  text.Add(time / 60 % 60, 2).Add(":").Add(time % 60, 2).Add(" UTC");
}

void AddThread(TSignalText& text) noexcept {
  text.Add("Reporting Thread ID: ").Add(::gettid()).Add(", CP: ");
  if (const TCheckpointRecord* const record = KZCP::PeekRecord()) {
    text.Add(record->LoadCurrentCP().View());
  }
  text.Add("\n");
}

void AddHead(TSignalText& text, const TFault& fault) noexcept {
  text.Add("\nFatal Signal ").Add(fault.Signal).Add(" (").Add(NameOf(fault.Signal)).Add(") At ");
  AddPlace(text, fault.Code);
  text.Add(" on ");
  AddUtcTime(text);
  if (fault.Info->si_code <= 0) {
    text.Add("\nSent by process ").Add(fault.Info->si_pid).Add(", user ").Add(fault.Info->si_uid);
  } else {
    text.Add("\nFault address: ").AddHex(reinterpret_cast<std::uintptr_t>(fault.Info->si_addr), 16);
    text.Add(", code ").Add(fault.Info->si_code);
  }
  text.Add("\nExecutable: ").Add(reporter.Executable.data());
  text.Add("\nProcess ID: ").Add(::getpid()).Add("\n");
  AddThread(text);
}

// Code addresses, innermost first: the place of the fault, then the calls that led to it.
struct TStack {
  std::array<std::uintptr_t, kMaxFrames> Code;
  std::size_t Count;

  [[nodiscard]] std::span<const std::uintptr_t> Used() const noexcept {
    return std::span(Code).first(Count);
  }
};

#if defined(__arm__)

// A walk along the calls. It begins behind the call to which register 14, the return address,
// leads.
struct TArmWalk {
  TStack& Stack;
  TArmRegisters Registers;
  std::uintptr_t Fault;  // The address at which the walk is in the faulting function.
  int Visits;

  void Run() noexcept {
    const auto add = [](_Unwind_Context* frame, void* argument) {
      return static_cast<TArmWalk*>(argument)->Add(frame);
    };
    __gnu_Unwind_Backtrace(add, this, &Registers);
  }

  // A function that calls none leaves its return address in the register, so that the walk comes to
  // the function again, but above what that has on the stack.
  _Unwind_Reason_Code Add(_Unwind_Context* frame) noexcept {
    const std::uintptr_t address = _Unwind_GetIP(frame);
    if (address == Fault) {
      Registers.Core[13] = _Unwind_GetGR(frame, 13);
      return ++Visits == 1 ? _URC_NO_REASON : _URC_FAILURE;
    }
    Stack.Code[Stack.Count++] = address - 1;
    return Stack.Count < Stack.Code.size() ? _URC_NO_REASON : _URC_FAILURE;
  }
};

// The unwinder does not get through the frame of a signal here, but can begin with its registers.
void AddCallers(TStack& stack, const TFault& fault) noexcept {
  TArmWalk walk{.Stack = stack, .Registers = {}, .Fault = fault.Code + 2, .Visits = 0};
  static_assert(offsetof(mcontext_t, arm_pc) - offsetof(mcontext_t, arm_r0) == 60);
  std::memcpy(walk.Registers.Core.data(), &fault.Machine->arm_r0, sizeof(walk.Registers.Core));
  if (ModuleOf(fault.Code) != nullptr) {
    walk.Registers.Core[14] = walk.Fault;
    walk.Run();
  }
  if (stack.Count > 1) return;
  walk.Registers.Core[14] = fault.Caller;
  walk.Fault = 0;
  walk.Run();
}

#else

void AddCallers(TStack& stack, const TFault& fault) noexcept {
  std::array<const void*, kMaxFrames> frames;
  const std::size_t count = CaptureStack(frames, 0);
  bool reached = false;  // The frames above the faulting one belong to this handler.
  for (const void* frame : std::span(frames).first(count)) {
    const auto address = reinterpret_cast<std::uintptr_t>(frame);
    if (reached && stack.Count < stack.Code.size()) stack.Code[stack.Count++] = address - 1;
    reached = reached || address == fault.Code;
  }
}

#endif

TStack StackOf(const TFault& fault) noexcept {
  TStack stack{};
  stack.Code[stack.Count++] = fault.Code;
  AddCallers(stack, fault);
  // A jump to nowhere: the stack cannot be followed from there.
  if (stack.Count == 1 && ModuleOf(fault.Code) == nullptr && ModuleOf(fault.Caller) != nullptr) {
    stack.Code[stack.Count++] = fault.Caller - 1;
  }
  return stack;
}

void AddStack(TSignalText& text, const TStack& stack) noexcept {
  text.Add("Stack Trace\n-----------\n");
  for (std::size_t i = 0; i < stack.Count; ++i) {
    text.Add("#").Add(static_cast<std::int64_t>(i)).Add(" ");
    AddPlace(text, stack.Code[i]);
    text.Add("\n");
  }
  text.Add("-----------\n");
}

void AddDemangled(TSignalText& text, const char* name) noexcept {
  const auto add = [](const char* piece, std::size_t length, void* context) {
    static_cast<TSignalText*>(context)->Add({piece, length});
  };
  const bool demangled = __gcclibcxx_demangle_callback != nullptr &&
                         __gcclibcxx_demangle_callback(name, add, &text) == 0;
  if (!demangled) text.Add(name);
}

void AddNames(TSignalText& text, const TStack& stack) noexcept {
  struct TFrame {
    TSignalText& Text;
    std::int64_t Number;
  };
  for (std::size_t i = 0; i < stack.Count; ++i) {
    TFrame frame{.Text = text, .Number = static_cast<std::int64_t>(i)};
    const auto add = [](void* context, const TCodePlace& place) {
      const auto& each = *static_cast<TFrame*>(context);
      each.Text.Add("#").Add(each.Number).Add(" ");
      AddDemangled(each.Text, place.Function);
      if (place.File != nullptr) each.Text.Add(" at ").Add(place.File).Add(":").Add(place.Line);
      each.Text.Add("\n");
    };
    TryVisitCodePlaces(stack.Code[i], add, &frame);
  }
  text.Add("-----------\n");
}

// Returns whether the file took it all.
bool Append(const TFileDescriptor& file, TSignalText& text) noexcept {
  const bool written = WriteText(file, text.View()) == 0;
  text.Clear();
  return written;
}

void WriteReport(const TFault& fault) noexcept {
  const char* const name = reporter.Log.load();
  if (name == nullptr) return;
  const TFileDescriptor file = OpenTextFile(name, TTextFileOpening::AppendOrCreate);
  if (!file) return;
  TSignalText& text = reporter.Text;
  AddHead(text, fault);
  if (Append(file, text)) {
    const TStack stack = StackOf(fault);
    AddStack(text, stack);
    if (Append(file, text)) {
      AddNames(text, stack);
      static_cast<void>(Append(file, text));
    }
  }
}

// Without this wait, the second thread to crash would end the process before the first one has
// written its report.
void WaitForReport() noexcept {
  constexpr int kRounds = 500;
  constexpr int kRoundMs = 10;
  for (int i = 0; i < kRounds && !reporter.Written.load(); ++i) ::poll(nullptr, 0, kRoundMs);
}

void OnFatalSignal(int signal, siginfo_t* info, void* context) {
  const int savedErrno = errno;
  LimitLastWords();
  if (!reporter.Begun.exchange(true)) {
    WriteReport(FaultOf(signal, info, context));
    reporter.Written.store(true);
  } else {
    WaitForReport();
  }
  // The system may take its time for the core.
  ::alarm(0);
  // The signal stays pending until this handler returns; so the core shows the place of the fault.
  ::signal(signal, SIG_DFL);
  ::raise(signal);
  errno = savedErrno;
}

void CopyText(std::span<char> to, std::string_view text) noexcept {
  const std::size_t length = std::min(text.size(), to.size() - 1);
  std::memcpy(to.data(), text.data(), length);
  to[length] = '\0';
}

int AddModule(dl_phdr_info* info, std::size_t /*size*/, void* /*context*/) {
  for (const ElfW(Phdr) & part : std::span(info->dlpi_phdr, info->dlpi_phnum)) {
    const bool code = part.p_type == PT_LOAD && (part.p_flags & PF_X) != 0;
    if (!code || reporter.ModuleCount == reporter.Modules.size()) continue;
    TModule& module = reporter.Modules[reporter.ModuleCount++];
    module.Bias = info->dlpi_addr;
    module.Begin = info->dlpi_addr + part.p_vaddr;
    module.End = module.Begin + part.p_memsz;
    const std::string_view path =
        *info->dlpi_name != '\0' ? std::string_view(info->dlpi_name) : reporter.Executable.data();
    CopyText(module.Name, FileNameOf(path));
  }
  return 0;
}

void Install(std::size_t index) noexcept {
  struct sigaction& previous = reporter.Previous[index];
  if (::sigaction(kFatalSignals[index], nullptr, &previous) != 0) return;
  if ((previous.sa_flags & SA_SIGINFO) != 0 || previous.sa_handler != SIG_DFL) return;
  struct sigaction ours {};
  ours.sa_sigaction = &OnFatalSignal;
  ours.sa_flags = SA_SIGINFO | SA_ONSTACK;
  // A fault in the handler then ends the process at once.
  sigfillset(&ours.sa_mask);
  reporter.Installed[index] = ::sigaction(kFatalSignals[index], &ours, nullptr) == 0;
}

}  // namespace

void LimitLastWords() noexcept {
  constexpr unsigned kLimitSec = 20;
  ::signal(SIGALRM, SIG_DFL);
  // Threads, and the handlers of fatal signals, block it.
  sigset_t alarm;
  sigemptyset(&alarm);
  sigaddset(&alarm, SIGALRM);
  ::pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
  ::alarm(kLimitSec);
}

void InstallFatalSignalReports() noexcept {
  assert(IsMainThread());
  static const TAlternateSignalStack mainThreadStack;
  CopyText(reporter.Executable, Settings().OwnExecutablePath);
  reporter.ModuleCount = 0;
  ::dl_iterate_phdr(&AddModule, nullptr);
  PrepareCodePlaces();
  // The first capture of a process may have to load what it needs.
  std::array<const void*, 1> ignored;
  static_cast<void>(CaptureStack(ignored, 0));
  for (std::size_t i = 0; i < kFatalSignals.size(); ++i) Install(i);
}

void RemoveFatalSignalReports() noexcept {
  assert(IsMainThread());
  for (std::size_t i = 0; i < kFatalSignals.size(); ++i) {
    if (!reporter.Installed[i]) continue;
    ::sigaction(kFatalSignals[i], &reporter.Previous[i], nullptr);
    reporter.Installed[i] = false;
  }
}

void SetFatalSignalLog(const std::string& fileName) noexcept {
  assert(IsMainThread());
  if (fileName.empty()) return reporter.Log.store(nullptr);
  auto& names = reporter.LogNames;
  auto& unused = reporter.Log.load() == names[0].data() ? names[1] : names[0];
  CopyText(unused, fileName);
  reporter.Log.store(unused.data());
}

}  // namespace guardian
