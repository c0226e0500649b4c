#include "guardian/Units.h"

#include <cassert>
#include <exception>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>

#include "common/DiagnosticMessage.h"
#include "common/ErrorLog.h"
#include "common/MainThread.h"
#include "common/Settings.h"
#include "common/Texts.h"
#include "config/KZSqlIniFiles.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/exception_report.h"
#include "diagnostics/job_mutex.h"
#include "ipc/KZMessages.h"
#include "ipc/KZUnixPipes.h"

namespace guardian {

std::unique_ptr<TKZCustomINIFile> OpenGuardianStore(TStoreUse use) {
  const std::string folder = Settings().LogDirectory.Copy();
  if (folder.empty()) return nullptr;
  const std::string name = JoinPath(folder, "VellumarkGuardian.cfg");
  std::error_code error;
  if (use == TStoreUse::Look && !std::filesystem::exists(name, error)) return nullptr;
  return std::make_unique<TKZSQLIniFile>(name);
}

TUnits::TUnits() {
  assert(IsMainThread());
  if (Settings().DebugMode) KZCP::Switches().History = true;
  KZCP::Init();
  StartExceptionReports({.Heading = "Vellumark Guardian 1.50", .OpenStore = &OpenGuardianStore});
  StartMessages();
  SetMessageExceptionReporter([](const std::exception_ptr& error, const std::string& title) {
    HandleException(error, TLogToFiles::Yes, title);
  });
  StartPipes();
}

// A step that fails, as for want of memory, keeps no other from being done.
TUnits::~TUnits() {
  using TStep = void (*)();
  constexpr TStep kSteps[] = {&StopPipes,
                              &StopMessages,
                              [] { SetMessageExceptionReporter({}); },
                              &StopExceptionReports,
                              [] { KZCP::Fini(&CheckMutexesAtTermination); },
                              [] { ErrorLog().Close(); }};
  for (const TStep step : kSteps) Guarded("End of the units", SystemClock(), step);
}

}  // namespace guardian
