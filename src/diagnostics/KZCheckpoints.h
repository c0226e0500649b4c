#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

namespace guardian {

class TCheckpointRecord;

// A string of at most 255 bytes with its length in front.
struct TShortString {
  std::uint8_t Length = 0;
  std::array<char, 255> Text{};
};

// What a checkpoint does besides being noted. The Guardian leaves all switches off; other programs
// of the maker set them at start-up. The consistency checks of the facility follow the debug mode
// of Settings(). Threads: any; each switch is an atomic because it is independent of the others.
struct TCheckpointSwitches {
  std::atomic<bool> RawErrorLogTrace = false;        // The text alone, to the error log.
  std::atomic<bool> CPFileTrace = false;             // To the thread's trace file.
  std::atomic<bool> DebugOutputTrace = false;        // To the system debug output.
  std::atomic<bool> Profiling = false;               // In debug mode only.
  std::atomic<bool> History = false;                 // The last 10,000 of each thread.
  std::atomic<bool> ErrorLogTrace = false;           // "CP " and the text, to the error log.
  std::atomic<bool> TimeStampErrorLogTrace = false;  // The same with the local time in front.
  std::atomic<bool> HistoryOverflow = false;         // Set when too many threads wanted a history.
};

// The checkpoint facility: a thread marks its progress by passing checkpoints, and the thread
// report tells from them where every thread is and has been. A call before and after everything
// that can block shows which call a thread hangs in:
//
//   KZCP::Checkpoint("PipCl.Read");
//   const ssize_t count = ::read(socket, buffer, size);
//   KZCP::Checkpoint("PipCl.ReadOK");
//
// A thread is listed in ThreadCPList from its first checkpoint on until RemoveThread, and at the
// latest until its end. The first checkpoint of a TThread is its name, passed at its start.
// Checkpoints that a thread passes while its thread-local objects are destroyed are ignored. Owner:
// process-wide. The entry calls Init at start-up, after the daemon has forked, and Fini at
// shut-down; both can be called again and again. Before Init and after Fini checkpoints are kept,
// but no thread is listed.
// Threads: any thread may call anything but Init and Fini, which the main thread calls.
namespace KZCP {

using TThreadId = std::int64_t;

enum class TRemoval {
  Normal,  // Not while the thread's message-box flag is set.
  Forced,
};

enum class TReportHeader { Without, With };

struct TCPTimes {
  std::int64_t CPTime = 0;          // Tick of the last checkpoint in milliseconds.
  std::int64_t PreviousCPTime = 0;  // The thread's allowance in seconds; the name is a given one.
};

// The only instance; never destroyed.
[[nodiscard]] TCheckpointSwitches& Switches() noexcept;

// Creates ThreadCPList when there is none, and makes the caller the main thread of the reports. It
// prepares the profiling in debug mode and switches it off otherwise.
void Init();

// Calls endFirst, when there is one, then frees the list and the profiling table. An exception of
// endFirst is thrown here before either is freed; Fini can then be called again. A program that
// uses the job mutexes hands CheckMutexesAtTermination over.
void Fini(void (*endFirst)() = nullptr);

// Passes a checkpoint. With all switches off it reads the tick counter and copies the text; it
// allocates and locks at the thread's first checkpoint only. Never throws: a trace that cannot be
// written is lost.
void Checkpoint(std::string_view text) noexcept;
void Checkpoint(std::u16string_view text) noexcept;
void Checkpoint(const TShortString& text) noexcept;

// The last checkpoint of a thread: "N/A" when the thread is not listed, "NA" when there is no
// list. The calling thread needs no list.
[[nodiscard]] std::string CurrentCP(TThreadId threadId);

// The time values of a thread, all 0 when it is not known.
[[nodiscard]] TCPTimes CPTime(TThreadId threadId);

// Sets the calling thread's allowance: the mutex guardian lets it be silent for so many seconds
// more than its limit.
void SetAllowance(std::int64_t seconds) noexcept;

// The time since a CP time.
[[nodiscard]] double ElapsedSeconds(std::int64_t cpTime) noexcept;
[[nodiscard]] std::int64_t ElapsedMilliseconds(std::int64_t cpTime) noexcept;

// Takes the calling thread out of the list and frees its history. Blocks while a report is made.
// Throws KZException "ThreadCPList Error" when debug mode is on and the list holds a foreign
// record for the thread.
void RemoveThread(TRemoval removal = TRemoval::Normal);

// Leaves every lock that the calling thread holds and a listed thread waits for.
void ReleaseRogueLocks();

// The thread report. Holds the list's lock, which a thread takes at its first checkpoint and at
// its end, while the text is made.
[[nodiscard]] std::string ThreadReport(TReportHeader header);

// The thread that makes a report at this moment, 0 when there is none.
[[nodiscard]] TThreadId ReportingThreadId() noexcept;

// The thread that called Init last, 0 before.
[[nodiscard]] TThreadId MainThreadId() noexcept;

// In debug mode: "<thread id>/<checkpoint> " for each newly listed thread, up to about 250
// characters.
[[nodiscard]] std::string RegistrationTrace();

// Writes the profiling results to the error log and empties the table. For other programs of the
// maker, as the profiling switch is.
void WriteProfilingResults();

// The calling thread's flag: expected exceptions shall be shown in a message box.
[[nodiscard]] bool MessageBoxFlag() noexcept;
void SetMessageBoxFlag(bool set) noexcept;

// For TKZCriticalSection: the calling thread's record; null at the thread's end.
[[nodiscard]] TCheckpointRecord* CurrentRecord() noexcept;

// For signal handlers: the calling thread's record, null when it has passed no checkpoint yet.
[[nodiscard]] const TCheckpointRecord* PeekRecord() noexcept;

}  // namespace KZCP
}  // namespace guardian
