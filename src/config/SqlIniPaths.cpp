#include "config/SqlIniPaths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "common/Exceptions.h"
#include "common/FileDescriptor.h"
#include "common/Texts.h"

namespace guardian {
namespace {

constexpr std::int64_t kSecondsBetweenBackups = 86'400;
constexpr auto kMutexPoll = std::chrono::milliseconds(20);
constexpr std::array<const char*, 4> kOlderEndings = {".old", ".old1", ".old2", ".old3"};
// The files that SQLite keeps beside a database and plays back into the file of that name.
constexpr std::array<const char*, 2> kJournalEndings = {"-journal", "-wal"};

std::optional<struct stat> Look(const std::string& name) {
  struct stat info {};
  if (::stat(name.c_str(), &info) != 0) return std::nullopt;
  return info;
}

[[noreturn]] void ThrowErrno(const char* operation, const std::string& object) {
  throw ESystemError(operation, object, errno);
}

void Rename(const std::string& from, const std::string& to) {
  if (::rename(from.c_str(), to.c_str()) != 0) ThrowErrno("rename", from);
}

bool HasContent(const std::string& name) {
  const auto info = Look(name);
  return info && info->st_size > 0;
}

// A journal must follow its database. An empty one says nothing and stays.
void RenameJournals(const std::string& from, const std::string& to) {
  for (const char* ending : kJournalEndings) {
    if (HasContent(from + ending)) Rename(from + ending, to + ending);
  }
}

void RenameWithJournals(const std::string& from, const std::string& to) {
  if (!Look(from)) return;
  TSqlIniPaths::Remove(to);
  RenameJournals(from, to);
  Rename(from, to);
}

// The newest becomes the first of the older ones; the oldest is given up when all places are taken.
void Rotate(const std::string& newest, const std::string& older) {
  for (std::size_t i = kOlderEndings.size() - 1; i > 0; --i) {
    RenameWithJournals(older + kOlderEndings[i - 1], older + kOlderEndings[i]);
  }
  RenameWithJournals(newest, older + kOlderEndings[0]);
}

// A rename is on the disk when its folder is. A file system that cannot sync a folder has nothing
// to wait for.
void SyncFolderOf(const std::string& name) {
  const std::string folder = std::filesystem::path(name).parent_path().string();
  const TFileDescriptor descriptor(
      RetryOnEintr([&] { return ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
  if (descriptor) ::fsync(descriptor.Get());
}

// As far as the system allows it: only root may give a file away.
void TakeOwnerFrom(const TSqlIniOwnership& model, int descriptor) {
  [[maybe_unused]] const int refused = ::fchown(descriptor, model.User, model.Group);
}

std::string ResolvedName(const std::string& name) {
  std::error_code error;
  if (name.empty()) return name;
  const std::filesystem::path absolute = std::filesystem::absolute(name, error);
  const std::filesystem::path resolved = std::filesystem::weakly_canonical(absolute, error);
  return error ? absolute.string() : resolved.string();
}

}  // namespace

TSqlIniPaths::TSqlIniPaths(const std::string& storeName)
    : FStore(ResolvedName(storeName)),
      FBackupFolder(JoinPath(std::filesystem::path(FStore).parent_path().string(), "CfgBackups")) {}

TSqlIniFileKind TSqlIniPaths::StoreKind() const {
  if (FStore.empty() || FStore.find('\0') != std::string::npos) return TSqlIniFileKind::Other;
  const auto info = Look(FStore);
  if (info) return S_ISREG(info->st_mode) ? TSqlIniFileKind::Regular : TSqlIniFileKind::Other;
  return errno == ENOENT ? TSqlIniFileKind::Missing : TSqlIniFileKind::Forbidden;
}

bool TSqlIniPaths::StoreIsReadable() const {
  return ::faccessat(AT_FDCWD, FStore.c_str(), R_OK, AT_EACCESS) == 0;
}

bool TSqlIniPaths::StoreIsWritable() const {
  return ::faccessat(AT_FDCWD, FStore.c_str(), W_OK, AT_EACCESS) == 0;
}

bool TSqlIniPaths::BackupIsDue() const {
  const auto backup = Look(NewestBackup());
  const auto store = Look(FStore);
  if (!backup || !store) return true;
  // Both times come from the file system's clock. A backup from the future tells nothing.
  const std::int64_t seconds = store->st_mtim.tv_sec - backup->st_mtim.tv_sec;
  return seconds >= kSecondsBetweenBackups || seconds <= -kSecondsBetweenBackups;
}

std::vector<std::string> TSqlIniPaths::Copies() const {
  // In the order of their names, not of their times, since the clock may have been set back.
  std::vector<std::string> names = {Replacement(), NewestBackup()};
  for (const char* ending : kOlderEndings) names.push_back(InBackups(ending));
  std::erase_if(names, [](const std::string& name) { return !Look(name); });
  return names;
}

void TSqlIniPaths::MakeBackupFolder() const {
  if (::mkdir(FBackupFolder.c_str(), 0777) != 0) {
    if (errno == EEXIST) return;
    ThrowErrno("mkdir", FBackupFolder);
  }
  const auto parent = OwnershipOf(std::filesystem::path(FStore).parent_path().string());
  const TFileDescriptor folder(
      ::open(FBackupFolder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!parent || !folder) return;
  TakeOwnerFrom(*parent, folder.Get());
  ::fchmod(folder.Get(), parent->Mode);
}

std::optional<TSqlIniOwnership> TSqlIniPaths::OwnershipOf(const std::string& name) {
  const auto info = Look(name);
  if (!info) return std::nullopt;
  return TSqlIniOwnership{info->st_mode & 07777, info->st_uid, info->st_gid};
}

void TSqlIniPaths::MakeEmptyFile(const std::string& name,
                                 const std::optional<TSqlIniOwnership>& model) {
  Remove(name);
  const TFileDescriptor file(RetryOnEintr([&] {
    return ::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                  model ? 0600 : 0644);
  }));
  if (!file) ThrowErrno("create", name);
  if (!model) return;
  TakeOwnerFrom(*model, file.Get());
  if (::fchmod(file.Get(), model->Mode & 0777) != 0) ThrowErrno("chmod", name);
}

void TSqlIniPaths::Remove(const std::string& name) {
  ::unlink(name.c_str());
  for (const char* ending : kJournalEndings) ::unlink((name + ending).c_str());
}

void TSqlIniPaths::RotateBackups() const {
  Rotate(NewestBackup(), InBackups(""));
  Rename(NewBackup(), NewestBackup());
  SyncFolderOf(NewestBackup());
}

void TSqlIniPaths::ReplaceDamaged() const {
  const bool hasJournal = std::any_of(kJournalEndings.begin(), kJournalEndings.end(),
                                      [this](auto ending) { return HasContent(FStore + ending); });
  if (hasJournal || Look(FStore)) {
    Rotate(Previous(), InBackups("-previous"));
    KeepAs(Previous());
    RenameJournals(FStore, Previous());
  }
  PutReplacementInPlace();
}

void TSqlIniPaths::ReplaceEmpty() const {
  const std::string kept = JoinPath(FBackupFolder, "emptycfgfile.empty");
  KeepAs(kept);
  RenameJournals(FStore, kept);
  PutReplacementInPlace();
}

std::string TSqlIniPaths::InBackups(const std::string& ending) const {
  return JoinPath(FBackupFolder, FileNameOf(FStore)) + ending;
}

// By a second name, so that the store is never without a file. Where the file system has no hard
// links, by a rename.
void TSqlIniPaths::KeepAs(const std::string& name) const {
  Remove(name);
  if (::link(FStore.c_str(), name.c_str()) == 0 || errno == ENOENT) return;
  Rename(FStore, name);
}

void TSqlIniPaths::PutReplacementInPlace() const {
  Rename(Replacement(), FStore);
  Remove(Replacement());  // Its journal is empty.
  SyncFolderOf(FStore);
}

std::optional<TSqlIniReplacing> TSqlIniReplacing::Begin(const TSqlIniPaths& files, TClock& clock,
                                                        std::chrono::milliseconds timeout) {
  const std::int64_t deadline = clock.TickCount() + timeout.count();
  while (true) {
    TNamedMutex mutex = TNamedMutex::Create(files.Mutex());
    if (mutex.Error() == 0) return TSqlIniReplacing(std::move(mutex));
    if (mutex.Error() != kErrorAlreadyExists) {
      throw ESystemError("lock", files.Mutex() + ".lock", mutex.Error());
    }
    if (clock.TickCount() >= deadline) return std::nullopt;
    clock.Sleep(kMutexPoll);
  }
}

}  // namespace guardian
