#include "guardian/process/CaptureFile.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "common/Texts.h"

namespace guardian {
namespace {

constexpr std::string_view kExtension = ".txt";

}  // namespace

TCaptureFile::~TCaptureFile() {
  if (FIsOurs) Remove();
}

int TCaptureFile::Make(const std::string& folder) { return MakeUnique(folder, O_CLOEXEC); }

// A file in memory costs half as much time as one on disk; kernels before 3.17 have none.
int TCaptureFile::MakeNameless(const std::string& folder) {
  FName = "nameless";
  FFile = TFileDescriptor(::memfd_create("kzshell", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (FFile && ::fcntl(FFile.Get(), F_SETFL, O_APPEND) == 0) return 0;
  const int error = MakeUnique(folder, O_CLOEXEC | O_APPEND);
  if (error == 0) Remove();
  return error;
}

void TCaptureFile::StopGrowth() noexcept { ::fcntl(FFile.Get(), F_ADD_SEALS, F_SEAL_GROW); }

// The name shows up in the process list as part of the shell's line: it must not look like one of
// the programs that are searched for there.
int TCaptureFile::MakeUnique(const std::string& folder, int flags) {
  FName = JoinPath(folder, "kzshell-XXXXXX") + std::string(kExtension);
  std::string pattern = FName;
  FFile = TFileDescriptor(::mkostemps(pattern.data(), static_cast<int>(kExtension.size()), flags));
  if (!FFile) return errno;
  FName = pattern;
  FIsOurs = true;
  return 0;
}

int TCaptureFile::Open(const std::string& name) {
  FName = name;
  if (!IsSafeInDoubleQuotes(name)) return EINVAL;
  FFile = TFileDescriptor(RetryOnEintr([&] {
    return ::open(name.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0600);
  }));
  return FFile ? 0 : errno;
}

std::uint64_t TCaptureFile::SizeBytes() const noexcept {
  struct stat status {};
  if (::fstat(FFile.Get(), &status) != 0 || !S_ISREG(status.st_mode)) return 0;
  return static_cast<std::uint64_t>(status.st_size);
}

// Starts at the beginning of the file: the child wrote through the same open file, which moved its
// position.
int TCaptureFile::AppendTo(std::string& text, std::size_t maxBytes) const {
  if (SizeBytes() == 0 || text.size() >= maxBytes) return 0;
  if (::lseek(FFile.Get(), 0, SEEK_SET) < 0) return errno;
  std::string contents;
  const int error = ReadToEnd(FFile.Get(), maxBytes - text.size(), contents);
  text += contents;
  return error;
}

void TCaptureFile::Remove() noexcept {
  ::unlink(FName.c_str());
  FIsOurs = false;
}

bool IsSafeInDoubleQuotes(const std::string& name) {
  constexpr std::string_view kSpecial("\"$`\\\0", 5);
  return !name.empty() && name.find_first_of(kSpecial) == std::string::npos;
}

std::string UsableTempFolder(const std::string& wanted) {
  // The file's name stands in the command line of the shell, and the daemon's name in it would make
  // the shell look like the daemon in the process list.
  const bool namesDaemon = wanted.find("VellumarkCL") != std::string::npos;
  return IsSafeInDoubleQuotes(wanted) && !namesDaemon ? wanted : "/tmp";
}

}  // namespace guardian
