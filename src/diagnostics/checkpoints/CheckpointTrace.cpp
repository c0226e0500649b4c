#include "diagnostics/checkpoints/CheckpointTrace.h"

#include <random>

#include "common/Clock.h"
#include "common/Settings.h"
#include "common/TextFile.h"
#include "common/Texts.h"
#include "common/Thread.h"

namespace guardian {
namespace {

std::string NewFileName() {
  const auto random = std::random_device{}() % 1'000'000;
  const std::string name = "KZCP-" + std::string(FileNameOf(Settings().OwnExecutablePath)) + "-" +
                           std::to_string(CurrentThreadId() & 0x7FFFFFFF) + std::to_string(random) +
                           ".log";
  return JoinPath(Settings().TempDirectory.Copy(), name);
}

std::string Header() {
  std::string header = "-------------\nNEW KZCP FILE\n-------------\n";
  header += "exe: " + Settings().OwnExecutablePath;
  const auto& commandLine = Settings().CommandLine;
  for (std::size_t i = 1; i < commandLine.size(); ++i) {
    header += " " + QuoteArgument(commandLine[i]);
  }
  return header + "\n-------------";
}

}  // namespace

void TCheckpointTrace::Write(std::string_view text) {
  if (FFileName.empty()) CreateFile();
  if (FFileName.empty()) return;
  const TFileDescriptor file = OpenTextFile(FFileName, TTextFileOpening::Append);
  if (!file) return;
  std::string line = TimeOfDayToStr(SystemClock().Now()) + " ";
  static_cast<void>(WriteTextLine(file, line.append(text)));
}

// All users can write to the temporary folder: a file that exists already may belong to another
// user, and is not written to.
void TCheckpointTrace::CreateFile() {
  std::string name = NewFileName();
  const TFileDescriptor file = OpenTextFile(name, TTextFileOpening::CreateNew);
  if (!file) return;
  static_cast<void>(WriteTextLine(file, Header()));
  FFileName = std::move(name);
}

}  // namespace guardian
