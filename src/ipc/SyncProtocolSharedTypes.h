#pragma once

#include <cstdint>
#include <string>

namespace guardian {

// The commands and actions that the two ends of the scheduler pipe send each other. Each travels as
// one byte, its ordinal.

enum class TSyncCommMessages : std::uint8_t {
  msgNone,
  msgUpdateProfileListAndStartTimer,
  msgStopTimer,
  msgStartTimer,
  msgEndTimerProcess,
  msgUpdateProfileDetails,
  msgShowMainWindow,
  msgStopAll,
  msgEnquireGrid,
  msgCancel,
  msgUpdateProfileListWithINI,
  msgCancelProfile,
  msgManuallyRunningInfoOBSOLETE,
  msgGoodBye,
  msgTrayStatus,
  msgStopTimerAndClosePipe,
  msgUpdateProgramSettings,
  msgRunUserProfile,
  msgGetProfileINI,
  msgGetProfileList,
  msgUpdateSoftware,
  msgReinstallSoftware,
  msgEnquireStatus,
  msgPauseProfile,
  msgResumeProfile,
  msgUpgradeSoftware,
  msgSkipProfilePhase,
};

enum class TSchedulerActions : std::uint8_t {
  tsaNone,
  tsaStopped,
  tsaStopping,
  tsaStarting,
  tsaSchedulerRunning,
  tsaTerminating,
  tsaStatusUpdate,
  tsaUpdateGrid,
  tsaProgress,
  tsaWaitState,
  tsaException,
  tsaProgressText,
  tsaShowMainProgram,
  tsaParallelProgress,
  tsaMinimizeMainProgram,
  tsaCloseMainProgram,
  tsaToggleMainProgram,
  tsaRunningProfile,
  tsaStoppedOrOffline,
  tsaNoScheduledProfiles,
  tsaBufferReceived,
  tsaCannotSendINI,
};

enum class TSchedulerType : std::uint8_t { stInternal, stBackground, stService };

// The name in log lines; "?" and the number for an ordinal without a name.
[[nodiscard]] std::string NameOf(TSyncCommMessages message);
[[nodiscard]] std::string NameOf(TSchedulerActions action);

}  // namespace guardian
