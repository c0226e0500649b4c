#include "simulator/Home.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>

#include "common/Settings.h"

namespace guardian {
namespace {

namespace fs = std::filesystem;

}  // namespace

THome THome::FromEnvironment() {
  const char* named = std::getenv("VELLUMARKCL_HOME");
  if (named != nullptr && *named != '\0') return THome(fs::absolute(named).lexically_normal());
  return THome(fs::path(Settings().OwnExecutablePath).parent_path() / "VellumarkCL.d");
}

THome::THome(std::string path) : FPath(std::move(path)) {
  while (FPath.size() > 1 && FPath.back() == '/') FPath.pop_back();
}

void THome::CreateFolders() const {
  fs::create_directories(TempFolder());
  fs::create_directories(MutexFolder());
  fs::create_directories(LogFolder());
}

bool THome::Exists() const noexcept {
  std::error_code ignored;
  return fs::is_directory(FPath, ignored);
}

}  // namespace guardian
