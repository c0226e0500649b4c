#include "webstatus/LogDownloads.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <utility>
#include <vector>

#include "common/Exceptions.h"
#include "common/FileDescriptor.h"
#include "common/Settings.h"
#include "common/Texts.h"

namespace guardian {
namespace {

struct TCloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

// The newest first. Skips broken links, files that vanish meanwhile, and everything that is not a
// regular file.
std::vector<TLogFile> FindLogFiles(const std::string& folder) {
  const std::unique_ptr<DIR, TCloseDirectory> directory(::opendir(folder.c_str()));
  if (!directory) throw ESystemError("open folder", folder, errno);
  std::vector<TLogFile> files;
  while (const dirent* entry = ::readdir(directory.get())) {
    const std::string_view name = entry->d_name;
    if (!name.ends_with(".log")) continue;
    struct stat info {};
    if (::fstatat(::dirfd(directory.get()), entry->d_name, &info, 0) != 0) continue;
    if (!S_ISREG(info.st_mode)) continue;
    files.push_back({std::int64_t{info.st_mtim.tv_sec} * 1'000'000'000 + info.st_mtim.tv_nsec,
                     std::string(name), static_cast<std::uint64_t>(info.st_size)});
  }
  std::sort(files.rbegin(), files.rend());
  return files;
}

// The path of the file behind an open descriptor, without symbolic links.
std::string PathOf(const TFileDescriptor& file) {
  return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file.Get())).string();
}

TFileDescriptor Open(const std::string& path, int flags, const std::string& shownPath) {
  TFileDescriptor file(RetryOnEintr([&] { return ::open(path.c_str(), flags | O_CLOEXEC); }));
  if (!file) throw ESystemError("open", shownPath, errno);
  return file;
}

}  // namespace

TLogList ListLogFiles(const std::string& folder) {
  constexpr std::size_t kMostFiles = 12;
  TLogList list;
  try {
    if (!folder.empty()) list.Files = FindLogFiles(folder);
  } catch (const KZException& error) {
    list.Problem = error.Message();
  }
  if (list.Files.size() > kMostFiles) list.Files.resize(kMostFiles);
  return list;
}

TLogFolder::TLogFolder()
    : FLooks(std::make_unique<TLookThread<TLogList>>(
          "LogFolder", [] { return ListLogFiles(Settings().LogDirectory.Copy()); }, TLogList{})) {
  FLooks->Start();
}

TLogList TLogFolder::Seen() const {
  TLogList list = FLooks->AskBriefly(std::chrono::seconds(1));
  list.StandsStill = FLooks->WaitsFor(std::chrono::seconds(5));
  return list;
}

TLogFolder::~TLogFolder() {
  constexpr std::chrono::milliseconds kGrace{100};
  TThread::EndOrLeaveBehind(std::move(FLooks), kGrace);
}

std::string LogFileLink(const std::string& name) {
  // Entities are the inner encoding: a download decodes them last.
  return "<a href=\"" + std::string(kLogLinkFolder) + "/" + LinkEncode(HtmlEscape(name)) +
         "\" target=\"_blank\">" + HtmlEscape(name) + "</a>";
}

std::string LogFileLinks(const std::string& folder) {
  if (folder.empty()) return {};
  std::string links;
  for (const TLogFile& file : FindLogFiles(folder)) links += LogFileLink(file.Name) + "<br>";
  return links;
}

void OpenLogFile(std::string_view linkName, const std::string& folder, THttpResponse& response) {
  const std::string path = folder + HtmlDecode(linkName);
  if (folder.empty() || path.find('\0') != std::string::npos) {
    throw KZException("No such log file: " + path);
  }
  // The checks use one descriptor, so that the file that is checked is the file that is read.
  // O_PATH does not open it for reading, which would have effects on a device or a named pipe.
  const TFileDescriptor folderHandle = Open(folder, O_PATH | O_DIRECTORY, folder);
  const TFileDescriptor fileHandle = Open(path, O_PATH, path);
  const bool inside =
      PathOf(fileHandle).starts_with(JoinPath(PathOf(folderHandle), std::string_view()));
  struct stat info {};
  if (::fstat(fileHandle.Get(), &info) != 0) throw ESystemError("stat", path, errno);
  if (!S_ISREG(info.st_mode) || !inside) {
    throw KZException("Not a file of the log folder: " + path);
  }
  response.File =
      Open("/proc/self/fd/" + std::to_string(fileHandle.Get()), O_RDONLY | O_NONBLOCK, path);
  response.FileSize = static_cast<std::uint64_t>(info.st_size);
  response.ContentType = "text/plain";
  response.Body.clear();
}

}  // namespace guardian
