#include "simulator/Faults.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>

#include "common/Exceptions.h"
#include "common/FileDescriptor.h"
#include "common/Texts.h"

namespace guardian {
namespace {

constexpr std::size_t kMaxFileBytes = 65'536;

struct TFaultName {
  std::string_view Word;
  TFault Fault;
};

constexpr std::array kFaultNames = {
    TFaultName{"ignore-stop", TFault::IgnoreStop},
    TFaultName{"ignore-term", TFault::IgnoreTerm},
    TFaultName{"hang-stop", TFault::HangStop},
    TFaultName{"hang-paths", TFault::HangPaths},
    TFaultName{"no-mutex-path", TFault::NoMutexPath},
    TFaultName{"paths-flood", TFault::PathsFlood},
    TFaultName{"start-fails", TFault::StartFails},
    TFaultName{"freeze-pulse", TFault::FreezePulse},
    TFaultName{"drop-mutex", TFault::DropMutex},
    TFaultName{"close-pipe", TFault::ClosePipe},
    TFaultName{"mute-pipe", TFault::MutePipe},
    TFaultName{"garbage", TFault::Garbage},
    TFaultName{"crash", TFault::Crash},
    TFaultName{"keep-open", TFault::KeepOpen},
};

std::string_view Trim(std::string_view line) {
  constexpr std::string_view kBlanks = " \t\r";
  const std::size_t first = line.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return line.substr(first, line.find_last_not_of(kBlanks) - first + 1);
}

std::vector<std::string> WordsOf(std::string_view text) {
  std::vector<std::string> words;
  for (const std::string_view line : Split(text, '\n')) {
    const std::string_view word = Trim(line);
    if (!word.empty() && word.front() != '#') words.emplace_back(word);
  }
  return words;
}

std::string ReadText(const std::string& path) {
  const TFileDescriptor file(
      RetryOnEintr([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
  std::string text;
  if (file && ReadToEnd(file.Get(), kMaxFileBytes, text) != 0) text.clear();
  return text;
}

// Writes a new file and renames it over the old one, so that a reader sees either file whole.
void WriteWords(const std::string& path, const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text.append(word).append("\n");
  const std::string draft = path + "." + std::to_string(::getpid());
  const TFileDescriptor file(RetryOnEintr(
      [&] { return ::open(draft.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644); }));
  if (!file) throw ESystemError("open", draft, errno);
  if (const int error = WriteAll(file.Get(), text); error != 0) {
    throw ESystemError("write", draft, error);
  }
  if (::rename(draft.c_str(), path.c_str()) != 0) throw ESystemError("rename", draft, errno);
}

template <typename TValue, typename TRange>
bool Contains(const TRange& range, const TValue& value) {
  return std::find(range.begin(), range.end(), value) != range.end();
}

}  // namespace

bool TFaults::Has(TFault fault) const noexcept { return Contains(Ordered, fault); }

bool TFaults::HasUnknown(std::string_view word) const noexcept {
  return Contains(UnknownWords, word);
}

std::string_view FaultWord(TFault fault) noexcept {
  for (const TFaultName& name : kFaultNames) {
    if (name.Fault == fault) return name.Word;
  }
  return {};
}

TFaults ParseFaults(std::string_view text) {
  TFaults faults;
  for (const std::string& word : WordsOf(text)) {
    const auto* const found =
        std::find_if(kFaultNames.begin(), kFaultNames.end(),
                     [&](const TFaultName& name) { return name.Word == word; });
    if (found == kFaultNames.end()) {
      faults.UnknownWords.push_back(word);
    } else if (!faults.Has(found->Fault)) {
      faults.Ordered.push_back(found->Fault);
    }
  }
  return faults;
}

TFaults ReadFaults(const THome& home) { return ParseFaults(ReadText(home.FaultsFile())); }

void OrderFaults(const THome& home, const std::vector<std::string>& words) {
  if (words.empty()) return;
  std::vector<std::string> all = WordsOf(ReadText(home.FaultsFile()));
  for (const std::string& word : words) {
    if (!Contains(all, word)) all.push_back(word);
  }
  WriteWords(home.FaultsFile(), all);
}

void WithdrawFault(const THome& home, TFault fault) {
  std::vector<std::string> words = WordsOf(ReadText(home.FaultsFile()));
  std::erase(words, FaultWord(fault));
  WriteWords(home.FaultsFile(), words);
}

}  // namespace guardian
