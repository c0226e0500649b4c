#include "diagnostics/exceptions/ExceptionText.h"

#include <cstdint>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <vector>

#include "common/Settings.h"
#include "common/Texts.h"
#include "common/Thread.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/exceptions/PipeCounters.h"
#include "diagnostics/exceptions/StackTrace.h"

namespace guardian {
namespace {

constexpr std::string_view kRule = "-----------\n";

std::string FirstLines(const TExceptionContext& context) {
  const TExceptionDetails& details = context.Details;
  const void* const address = details.Stack.empty() ? nullptr : details.Stack.front();
  return "Application Error At " + AddressText(address) + " on " +
         DateTimeToStr(context.Clock.Now()) + "\nException " + details.ClassName + ": " +
         details.Message + "\n";
}

// 0 when the file cannot be asked.
std::string ExecutableSize() {
  std::error_code error;
  const std::uintmax_t size = std::filesystem::file_size(Settings().OwnExecutablePath, error);
  return std::to_string(error ? 0 : size);
}

std::string ReportingThread() {
  return "Reporting Thread ID: " + std::to_string(CurrentThreadId()) + "\n";
}

std::string Parameters() {
  std::string lines;
  const auto& commandLine = Settings().CommandLine;
  for (std::size_t i = 1; i < commandLine.size(); ++i) {
    lines += "Parameter: " + QuoteArgument(commandLine[i]) + "\n";
  }
  return lines;
}

std::string PipeLine(std::string_view kind, int pipes, int threads) {
  return std::string(kind) + std::to_string(pipes) + ", Threads: " + std::to_string(threads) + "\n";
}

std::string Pipes() {
  const TPipeCounters& counters = PipeCounters();
  return "\n" + PipeLine("Client Pipes: ", counters.ClientPipes, counters.ClientPipeThreads) +
         PipeLine("Server Pipes: ", counters.ServerPipes, counters.ServerPipeThreads);
}

std::string StackHeading() { return "\nStack Trace\n" + std::string(kRule); }

std::string StackLines(const TExceptionDetails& details) {
  std::string text;
  for (const std::string& line : StackTraceLines(details.Stack)) text += line + "\n";
  if (details.StackOfCatcher) text += "(Where the exception was caught.)\n";
  return text;
}

}  // namespace

std::string ExceptionStringForm(const TExceptionContext& context, const std::string& threadReport) {
  std::string text = FirstLines(context);
  text += "Executable:  " + Settings().OwnExecutablePath + "\n" + ReportingThread();
  text += "Size: " + ExecutableSize() + " (32-bit)\n";
  if (!context.Where.empty()) text += context.Where + "\n";
  text += Parameters() + Pipes() + StackHeading() + StackLines(context.Details) + "\n\n";
  text += threadReport;
  return text.append(kRule);
}

std::string ExceptionFileForm(const TExceptionContext& context, const std::string& heading,
                              const std::string& threadReport) {
  std::string text = heading + "\n" + FirstLines(context);
  text += "Where: " + context.Where + ", CP: " + KZCP::CurrentCP(CurrentThreadId()) + "\n";
  text += "Executable: " + Settings().OwnExecutablePath + "\n" + ReportingThread();
  text += "Size: " + ExecutableSize() + "\n";
  text += Parameters() + Pipes() + StackHeading() + "Stack Trace: " + StackLines(context.Details);
  text.append(kRule).append("\n");
  return text + (threadReport.empty() ? "Complete Thread Report Omitted\n" : threadReport);
}

}  // namespace guardian
