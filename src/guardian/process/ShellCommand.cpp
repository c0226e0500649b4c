#include "guardian/process/ShellCommand.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/Cancellation.h"
#include "common/Clock.h"
#include "common/Settings.h"
#include "diagnostics/KZCheckpoints.h"
#include "guardian/process/CaptureFile.h"
#include "guardian/process/ShellChild.h"

namespace guardian {
namespace {

constexpr std::size_t kMaxOutputBytes = 16'777'216;

// The files that one run writes to. The redirection at the end of the line covers the last command
// alone, and the shell empties that file at a moment that cannot be known. So the shell and the
// other commands of the line write to a second file.
struct TShellFiles {
  TCaptureFile LastCommand;
  TCaptureFile Shell;

  // The bytes written so far. A command that wrote too much is ended, which may take some seconds;
  // meanwhile it must not fill the memory.
  [[nodiscard]] std::uint64_t Watch() noexcept {
    const std::uint64_t size = LastCommand.SizeBytes() + Shell.SizeBytes();
    if (size > kMaxShellFileBytes) {
      Shell.StopGrowth(kMaxOutputBytes);
      LastCommand.StopGrowth(kMaxOutputBytes);
    }
    return size;
  }
};

// Returns 0 or the error number.
int OpenFiles(const TShellCommand& command, TShellFiles& files) {
  const std::string folder = UsableTempFolder(Settings().TempDirectory.Copy());
  const int error = command.TempFileName.empty() ? files.LastCommand.Make(folder)
                                                 : files.LastCommand.Open(command.TempFileName);
  if (error != 0 || Settings().PlainSystemCall) return error;
  return files.Shell.MakeNameless(folder);
}

// Returns 0 or the error number.
int StartShell(const TShellCommand& command, const TShellFiles& files, TShellChild& child) {
  // Cut at a zero byte, the line would lose its end, and the redirection with it.
  if (command.CommandLine.find('\0') != std::string::npos) return EINVAL;
  const std::string line = command.CommandLine + " >\"" + files.LastCommand.Name() + "\" 2>&1";
  if (Settings().ShellTrace) KZCP::Checkpoint("Shell Cmd: " + line);
  KZCP::Checkpoint("Exec: " + command.CommandLine + " >\"" + files.LastCommand.Name() + "\"");
  const std::vector<std::string> arguments = {"/bin/sh", "-c", line};
  // Only the simple runner has no file for the shell. The switch itself may have changed meanwhile.
  if (files.Shell.Descriptor() < 0) return child.Fork(arguments);
  return child.Spawn(arguments, files.Shell.Descriptor());
}

void RecordError(const std::string& text, int error) {
  KZCP::Checkpoint(text);
  KZCP::Checkpoint("errno: " + std::to_string(error));
}

void RunInFiles(const TShellCommand& command, TShellFiles& files, TShellResult& result) {
  TShellChild child;
  result.ErrorNumber = StartShell(command, files, child);
  if (result.ErrorNumber != 0) return;
  TShellEnding ending(command.Timeout, SystemClock().TickCount());
  child.Wait(
      ending, [&files] { return files.Watch(); }, command.Cancellation);
  result.End = ending.Reason();
  if (result.End == TShellEnd::Exited) result.ExitCode = child.ExitCode();
}

std::string ReadOutput(const TShellFiles& files) {
  std::string output;
  for (const TCaptureFile* file : {&files.Shell, &files.LastCommand}) {
    const int error = file->AppendTo(output, kMaxOutputBytes);
    if (error != 0) RecordError("ReadFail: " + file->Name(), error);
  }
  return output;
}

}  // namespace

TShellResult RunShell(const TShellCommand& command) {
  KZCP::Checkpoint("ShellCmd1:" + command.CommandLine);
  TShellResult result;
  if (command.Cancellation != nullptr && command.Cancellation->IsCancelled()) {
    result.End = TShellEnd::Cancelled;
    return result;
  }
  TShellFiles files;
  result.ErrorNumber = OpenFiles(command, files);
  result.TempFileName = files.LastCommand.Name();
  if (result.ErrorNumber == 0) RunInFiles(command, files, result);
  if (result.End == TShellEnd::CouldNotRun) {
    RecordError("ExecFail: " + command.CommandLine + " >\"" + result.TempFileName + "\"",
                result.ErrorNumber);
  }
  result.Output = ReadOutput(files);
  return result;
}

}  // namespace guardian
