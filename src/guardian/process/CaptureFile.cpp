#include "guardian/process/CaptureFile.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "common/DiagnosticMessage.h"
#include "common/Exceptions.h"
#include "common/Texts.h"

namespace guardian {
namespace {

constexpr std::string_view kExtension = ".txt";
constexpr const char* kUsualTempFolder = "/tmp";
constexpr const char* kMemoryFolder = "/dev/shm";

// Files in memory: kernels before 3.17 have none.
TFileDescriptor NewFileInMemory() {
  return TFileDescriptor(::memfd_create("kzshell", MFD_CLOEXEC | MFD_ALLOW_SEALING));
}

// Whether no other user can put something else in the place of a file in the folder.
bool IsSticky(const char* folder) {
  struct stat status {};
  return ::stat(folder, &status) == 0 && (status.st_mode & S_ISVTX) != 0;
}

}  // namespace

TCaptureFile::~TCaptureFile() {
  if (FIsOurs) Remove();
}

// "/tmp" may lie on a disk. When the shell closes a file that it has emptied, ext4 writes the file
// out, and the removal waits for that. While a disk hangs, the making of a name waits too.
int TCaptureFile::Make(const std::string& folder) {
  const bool isUsual = folder == kUsualTempFolder;
  if (isUsual && IsSticky(kMemoryFolder) && MakeWithRoom(kMemoryFolder) == 0) return 0;
  const int error = MakeWithRoom(folder);
  if (error == 0) return 0;
  const std::string tried = FName;
  if ((isUsual || MakeWithRoom(kUsualTempFolder) != 0) && MakeInMemory() != 0) {
    FName = tried;
    return error;
  }
  DiagnosticMessage("Temp folder " + folder + " cannot be used: " + SystemErrorText(error) +
                    "; commands write to " + (FIsOurs ? kUsualTempFolder : "memory"));
  return 0;
}

// A file in memory costs half as much time as one on disk.
int TCaptureFile::MakeNameless(const std::string& folder) {
  FName = "nameless";
  FFile = NewFileInMemory();
  if (!FFile) {
    if (const int error = Make(folder); error != 0) return error;
    Remove();
  }
  return ::fcntl(FFile.Get(), F_SETFL, O_APPEND) == 0 ? 0 : errno;
}

// A file in memory refuses the seal with EPERM when it was made under a name; one on a disk refuses
// it with EINVAL, and to free its bytes would be to wait for the disk.
void TCaptureFile::StopGrowth(std::uint64_t keptBytes) noexcept {
  if (::fcntl(FFile.Get(), F_ADD_SEALS, F_SEAL_GROW) == 0 || errno != EPERM || !FIsOurs) return;
  const auto kept = static_cast<off_t>(keptBytes);
  const auto rest = static_cast<off_t>(SizeBytes()) - kept;
  if (rest > 0) ::fallocate(FFile.Get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, kept, rest);
}

// The name shows up in the process list as part of the shell's line: it must not look like one of
// the programs that are searched for there.
int TCaptureFile::MakeUnique(const std::string& folder) {
  FName = JoinPath(folder, "kzshell-XXXXXX") + std::string(kExtension);
  std::string pattern = FName;
  FFile =
      TFileDescriptor(::mkostemps(pattern.data(), static_cast<int>(kExtension.size()), O_CLOEXEC));
  if (!FFile) return errno;
  FName = pattern;
  FIsOurs = true;
  return 0;
}

// A full folder takes an empty file, but nothing that is written to it: then a process list would
// be empty, as if nothing ran. A file system without a number of blocks cannot tell.
int TCaptureFile::MakeWithRoom(const std::string& folder) {
  constexpr std::uint64_t kRoomBytes = 65'536;
  if (const int error = MakeUnique(folder); error != 0) return error;
  struct statvfs room {};
  const bool known = ::fstatvfs(FFile.Get(), &room) == 0 && room.f_blocks != 0;
  if (!known || std::uint64_t{room.f_bavail} * room.f_frsize >= kRoomBytes) return 0;
  Remove();
  return ENOSPC;
}

// "/proc/self" leads to this process's number in the process list that is mounted there, which the
// shell sees too.
int TCaptureFile::MakeInMemory() {
  FFile = NewFileInMemory();
  std::error_code error;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self", error);
  if (!FFile || error) return ENOENT;
  FName = "/proc/" + self.string() + "/fd/" + std::to_string(FFile.Get());
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
  return IsSafeInDoubleQuotes(wanted) && !namesDaemon ? wanted : kUsualTempFolder;
}

}  // namespace guardian
