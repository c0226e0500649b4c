#include "guardian/HistoryStore.h"

#include <chrono>
#include <string>
#include <utility>

#include "common/DiagnosticMessage.h"
#include "common/Exceptions.h"
#include "common/Mutex.h"
#include "common/Progress.h"
#include "config/StoreMemory.h"

namespace guardian {
namespace {

constexpr std::chrono::minutes kWriteInterval{10};
constexpr const char* kSection = "History";
constexpr const char* kKey = "Record";

}  // namespace

// Uses nothing but itself, the history and what lives as long as the process, because it may be
// left behind.
class THistoryStore::TStoreThread final : public TThread {
 public:
  TStoreThread(std::shared_ptr<THistory> history, TStoreOpener openStore, TClock& clock)
      : TThread("HistoryStore"),
        FHistory(std::move(history)),
        FOpenStore(std::move(openStore)),
        FClock(clock) {}
  ~TStoreThread() override { Join(); }

 private:
  void Execute() override {
    Use(TStoreUse::Look);
    while (WaitUntilDue()) {
      Use(TStoreUse::Keep);
      GiveBackStoreMemory();  // It is not needed for ten minutes.
    }
    Use(TStoreUse::Keep);
  }

  // Returns whether the interval is over; false when the thread is to end.
  bool WaitUntilDue() KZ_EXCLUDES(FLock) {
    NoteProgress("HistoryStore:Wait");
    const TMutexLock lock(FLock);
    const std::int64_t due = FClock.TickCount() + std::chrono::milliseconds(kWriteInterval).count();
    return !FClock.WaitUntil(FLock, FChanged, due, [this] { return Terminated(); });
  }

  void Use(TStoreUse use) noexcept {
    NoteProgress("HistoryStore:Use");
    try {
      const auto store = FOpenStore(use);
      if (store == nullptr) return;
      if (!FTakenOver) TakeOver(*store, use);
      if (use == TStoreUse::Keep) Write(*store);
      FFailed = false;
    } catch (...) {
      if (!std::exchange(FFailed, true)) DiagnosticFailure("History store");
    }
  }

  // A store gives nothing for what it cannot read, too. Before anything is written over, it must
  // show that it can be read at this moment.
  void TakeOver(TKZCustomINIFile& store, TStoreUse use) {
    constexpr const char* kProbe = "Opened";
    const std::string probe = DateTimeToStr(FClock.Now());
    if (use == TStoreUse::Keep) store.WriteString(kSection, kProbe, probe);
    const std::string bytes = store.ReadString(kSection, kKey, "");
    if (bytes.empty()) {
      if (use == TStoreUse::Look || store.ReadString(kSection, kProbe, "") == probe) return;
      throw SoftException("It cannot be read, and so nothing is written over what it holds.");
    }
    FTakenOver = true;
    if (const auto earlier = RecordOf(bytes)) {
      FHistory->TakeOver(*earlier);
    } else {
      DiagnosticMessage("The stored history is of another layout; it begins anew.");
    }
  }

  // The store says nothing of a failure but in a line of its own, so what it has now is looked at.
  void Write(TKZCustomINIFile& store) {
    const std::string bytes = BytesOf(*FHistory->Get());
    store.WriteString(kSection, kKey, bytes);
    store.UpdateFile();
    if (store.ReadString(kSection, kKey, "") != bytes) {
      throw SoftException("It was not written; what is new is lost when the Guardian ends now.");
    }
    FTakenOver = true;
  }

  void OnTerminate() override KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    FChanged.NotifyAll();
  }

  const std::shared_ptr<THistory> FHistory;
  const TStoreOpener FOpenStore;
  TClock& FClock;
  TMutex FLock;
  TCondition FChanged;

  // Used by the thread alone.
  bool FTakenOver = false;
  bool FFailed = false;
};

THistoryStore::THistoryStore(std::shared_ptr<THistory> history, TStoreOpener openStore,
                             TClock& clock)
    : FThread(std::make_unique<TStoreThread>(std::move(history), std::move(openStore), clock)) {
  FThread->Start();
}

THistoryStore::~THistoryStore() {
  constexpr std::chrono::seconds kGrace{1};
  TThread::EndOrLeaveBehind(std::move(FThread), kGrace);
}

}  // namespace guardian
