#include "guardian/Units.h"

#include <cassert>
#include <exception>
#include <memory>
#include <string>

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
namespace {

// The store in which the exception reports keep their throttle; null before the log folder is
// known.
std::unique_ptr<TKZCustomINIFile> OpenReportStore() {
  const std::string folder = Settings().LogDirectory.Copy();
  if (folder.empty()) return nullptr;
  return std::make_unique<TKZSQLIniFile>(JoinPath(folder, "VellumarkGuardian.cfg"));
}

}  // namespace

TUnits::TUnits() {
  assert(IsMainThread());
  KZCP::Init();
  StartExceptionReports({.Heading = "Vellumark Guardian 1.50", .OpenStore = &OpenReportStore});
  StartMessages();
  SetMessageExceptionReporter([](const std::exception_ptr& error, const std::string& title) {
    HandleException(error, TLogToFiles::Yes, title);
  });
  StartPipes();
}

TUnits::~TUnits() {
  StopPipes();
  StopMessages();
  SetMessageExceptionReporter({});
  StopExceptionReports();
  KZCP::Fini(&CheckMutexesAtTermination);
}

}  // namespace guardian
