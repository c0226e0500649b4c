#include "guardian/DaemonPath.h"

#include <chrono>
#include <optional>
#include <utility>

#include "common/Console.h"
#include "common/Exceptions.h"

namespace guardian {
namespace {

using TPlaces = TDaemonPath::TPlaces;

const std::string& Choose(const TPlaces& places, bool besideExists) {
  const bool isBeside = besideExists && places.Beside != places.Own;
  return isBeside || places.FromConf.empty() ? places.Beside : places.FromConf;
}

TDaemonPathSeen Look(const TPlaces& places, const TFileSystemView& files) {
  const bool besideExists = files.FileExists(places.Beside);
  const std::string& path = Choose(places, besideExists);
  return {path, path == places.Beside ? besideExists : files.FileExists(path)};
}

}  // namespace

TDaemonPath::TDaemonPath(std::string ownPath, std::string confDir, const TFileSystemView& files)
    : FOwnPath(std::move(ownPath)),
      FConfFile(std::move(confDir) + "/VellumarkCL.conf"),
      FFiles(files),
      FPlaces(
          std::make_shared<TShared<TPlaces>>(TPlaces{FOwnPath, DaemonPathBeside(FOwnPath), {}})),
      FLooks(std::make_unique<TLookThread<TDaemonPathSeen>>(
          "DaemonPath", [places = FPlaces, &files] { return Look(*places->Get(), files); },
          TDaemonPathSeen{FPlaces->Get()->Beside, false})) {
  FLooks->Start();
}

TDaemonPath::~TDaemonPath() {
  constexpr std::chrono::milliseconds kGrace{100};
  TThread::EndOrLeaveBehind(std::move(FLooks), kGrace);
}

std::string TDaemonPath::Get() {
  const std::string beside = DaemonPathBeside(FOwnPath);
  constexpr std::chrono::seconds kLongest{5};
  const std::optional<TDaemonPathSeen> seen = FLooks->Ask(kLongest);
  if (!seen) throw SoftException("The file system of the daemon does not answer: " + beside);
  const bool besideExists = seen->Path == beside && seen->Exists;
  // The daemon's path would be the Guardian's own when the Guardian's file was renamed.
  if (!besideExists || beside == FOwnPath) ReadConf();
  std::string path = Choose({FOwnPath, beside, FPathFromConf}, besideExists);
  // Each Guardian would start the next one.
  if (path == FOwnPath) {
    throw SoftException("The daemon's path is the Guardian's own: " + path);
  }
  return path;
}

TDaemonPathSeen TDaemonPath::Seen() const {
  constexpr std::chrono::milliseconds kFresh{100};
  return FLooks->AskBriefly(kFresh);
}

void TDaemonPath::ReadConf() {
  if (FConfRead) return;
  if (FFiles.FileExists(FConfFile)) {
    PrintLine("Reading config file " + FConfFile);
    for (std::string& path : DaemonPathsInConf(TextOfConf())) {
      FPathFromConf = std::move(path);
      PrintLine("Daemon path from conf: " + FPathFromConf);
    }
  }
  FConfRead = true;
  FPlaces->Set({FOwnPath, DaemonPathBeside(FOwnPath), FPathFromConf});
}

// A file that cannot be read now is an expected failure: the next call tries again.
std::string TDaemonPath::TextOfConf() const {
  try {
    return FFiles.ReadText(FConfFile);
  } catch (const ESystemError& error) {
    throw SoftException(error.Message());
  }
}

}  // namespace guardian
