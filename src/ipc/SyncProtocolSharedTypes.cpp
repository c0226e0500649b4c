#include "ipc/SyncProtocolSharedTypes.h"

#include <array>
#include <cstddef>
#include <string_view>

namespace guardian {
namespace {

// The names at 10 and 12 are the older ones, kept on purpose.
constexpr std::array<std::string_view, 27> kMessageNames = {
    "msgNone",
    "msgUpdateProfileListAndStartTimer",
    "msgStopTimer",
    "msgStartTimer",
    "msgEndTimerProcess",
    "msgUpdateProfileDetails",
    "msgShowMainWindow",
    "msgStopAll",
    "msgEnquireGrid",
    "msgCancel",
    "msgUpdateProfileList",
    "msgCancelProfile",
    "msgManuallyRunningInfo",
    "msgGoodBye",
    "msgTrayStatus",
    "msgStopTimerAndClosePipe",
    "msgUpdateProgramSettings",
    "msgRunUserProfile",
    "msgGetProfileINI",
    "msgGetProfileList",
    "msgUpdateSoftware",
    "msgReinstallSoftware",
    "msgEnquireStatus",
    "msgPauseProfile",
    "msgResumeProfile",
    "msgUpgradeSoftware",
    "msgSkipProfilePhase",
};

constexpr std::array<std::string_view, 22> kActionNames = {
    "tsaNone",
    "tsaStopped",
    "tsaStopping",
    "tsaStarting",
    "tsaSchedulerRunning",
    "tsaTerminating",
    "tsaStatusUpdate",
    "tsaUpdateGrid",
    "tsaProgress",
    "tsaWaitState",
    "tsaException",
    "tsaProgressText",
    "tsaShowMainProgram",
    "tsaParallelProgress",
    "tsaMinimizeMainProgram",
    "tsaCloseMainProgram",
    "tsaToggleMainProgram",
    "tsaRunningProfile",
    "tsaStoppedOrOffline",
    "tsaNoScheduledProfiles",
    "tsaBufferReceived",
    "tsaCannotSendINI",
};

// The ordinal may come from the other end and be any byte.
template <std::size_t kCount>
std::string NameAt(const std::array<std::string_view, kCount>& names, std::uint8_t ordinal) {
  return ordinal < kCount ? std::string(names[ordinal]) : "?" + std::to_string(ordinal);
}

}  // namespace

std::string NameOf(TSyncCommMessages message) {
  return NameAt(kMessageNames, static_cast<std::uint8_t>(message));
}

std::string NameOf(TSchedulerActions action) {
  return NameAt(kActionNames, static_cast<std::uint8_t>(action));
}

}  // namespace guardian
