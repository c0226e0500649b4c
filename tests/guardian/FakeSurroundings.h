#pragma once

#include "guardian/GuardianService.h"
#include "support/TestSupport.h"

namespace guardian {

// A file system of a few named files and folders.
class TFakeFileSystem : public TFileSystemView {
 public:
  bool FileExists(const std::string& path) const override { return Files.contains(path); }
  bool DirectoryExists(const std::string& path) const override {
    return Directories.contains(path);
  }
  std::string ReadText(const std::string& path) const override {
    if (Files.at(path) == "unreadable") throw ESystemError("open", path, EACCES);
    return Files.at(path);
  }

  std::map<std::string, std::string> Files;
  std::set<std::string> Directories;
};

class TFakeScheduler final : public TScheduler {
 public:
  bool IsSchedulerRunning() override {
    if (Throws) throw SoftException("on purpose");
    return MutexOK;
  }
  TPipeCheck CheckSchedulerPipe() override { return {.Ok = PipeOK}; }
  bool SendCommand(TSyncCommMessages command) override {
    Sent.push_back(command);
    return true;
  }
  std::int64_t Pulse() const noexcept override { return LastPulse; }

  bool MutexOK = true, PipeOK = true, Throws = false;
  std::int64_t LastPulse = 0;
  std::vector<TSyncCommMessages> Sent;
};

inline constexpr const char* kOwnPath = "/opt/guard/VellumarkGuardian";
inline constexpr const char* kConf = "/etc/VellumarkCL.conf";

// A machine on which the daemon lies beside the Guardian. It outlives the service that it is given
// to; what the service calls in its timer's thread is read when no tick can run.
struct TFakeSurroundings {
  TGuardianSurroundings Make(
      std::function<TShellOutcome(const std::string& commandLine, int timeoutSec)> shell) {
    Files.Files["/opt/guard/VellumarkCL"] = "";
    return {.Shell = std::move(shell),
            .MakeScheduler =
                [this](const TScheduler::TLog&) {
                  auto scheduler = std::make_unique<TFakeScheduler>();
                  Scheduler = scheduler.get();
                  return scheduler;
                },
            .SystemLog =
                [this](std::string_view message, TSystemLogKind kind) {
                  if (kind != TSystemLogKind::Information) SystemLog.emplace_back(message);
                  return !SystemLogIsFull;
                },
            .Notify =
                [this](auto kind, auto text, auto status) {
                  Told.emplace_back(kind, text);
                  ToldStatus = status;
                },
            .NotifyProblems = [this] { return std::exchange(NotifyProblems, {}); },
            .OwnPath = kOwnPath,
            .ConfDir = "/etc",
            .Stopping = Stopping,
            .IsOwnProcess = [](pid_t pid) { return pid == 77; },
            .Files = &Files,
            .Clock = &Clock};
  }

  TFakeClock Clock;
  TFakeFileSystem Files;
  TFakeScheduler* Scheduler = nullptr;
  std::vector<std::string> SystemLog;
  bool SystemLogIsFull = false;
  std::vector<std::pair<TNoticeKind, std::string>> Told;
  std::string ToldStatus;
  std::vector<std::string> NotifyProblems;
  TCancellation Stopping;
};

}  // namespace guardian
