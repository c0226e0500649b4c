#include "ipc/MessageList.h"

namespace guardian {

void TMessageChain::Append(std::unique_ptr<TMessageWrapper> wrapper) noexcept {
  TMessageWrapper* last = wrapper.release();
  last->Next = nullptr;
  (FLast == nullptr ? FFirst : FLast->Next) = last;
  FLast = last;
  ++FCount;
}

void TMessageChain::Append(TMessageChain chain) noexcept {
  if (chain.Empty()) return;
  (FLast == nullptr ? FFirst : FLast->Next) = std::exchange(chain.FFirst, nullptr);
  FLast = std::exchange(chain.FLast, nullptr);
  FCount += std::exchange(chain.FCount, 0);
}

std::unique_ptr<TMessageWrapper> TMessageChain::TakeFirst() noexcept {
  std::unique_ptr<TMessageWrapper> first(FFirst);
  if (first == nullptr) return nullptr;
  FFirst = std::exchange(first->Next, nullptr);
  if (FFirst == nullptr) FLast = nullptr;
  --FCount;
  return first;
}

TMessageChain TMessageChain::TakeIf(const std::function<bool(const TMessageWrapper&)>& chosen) {
  TMessageChain taken;
  TMessageChain kept;
  while (auto wrapper = TakeFirst()) {
    (chosen(*wrapper) ? taken : kept).Append(std::move(wrapper));
  }
  *this = std::move(kept);
  return taken;
}

void TMessageChain::Clear() noexcept {
  while (TakeFirst() != nullptr) continue;
}

void TMessageList::Open() {
  const TMutexLock lock(FLock);
  FOpen = true;
}

TMessageChain TMessageList::Close() {
  const TMutexLock lock(FLock);
  FOpen = false;
  FChain.Append(std::move(FSpares));
  return std::move(FChain);
}

bool TMessageList::Empty() const {
  const TMutexLock lock(FLock);
  return FChain.Empty();
}

TMessageList::TAppended TMessageList::Append(std::unique_ptr<TMessageWrapper>& wrapper) {
  const TMutexLock lock(FLock);
  if (!FOpen) return TAppended::Refused;
  const bool first = FChain.Empty();
  FChain.Append(std::move(wrapper));
  wrapper = FSpares.TakeFirst();
  return first ? TAppended::AsFirst : TAppended::AsFurther;
}

TMessageChain TMessageList::TakeAll(TMessageChain used) {
  const TMutexLock lock(FLock);
  if (FOpen && FSpares.Count() + used.Count() <= kMaxSpares) {
    // The last used are handed out first: they are in the processor's cache.
    used.Append(std::move(FSpares));
    FSpares = std::move(used);
  }
  return std::move(FChain);
}

TMessageChain TMessageList::TakeIf(const std::function<bool(const TMessageWrapper&)>& chosen) {
  const TMutexLock lock(FLock);
  return FChain.TakeIf(chosen);
}

void TMessageList::PutBack(TMessageChain chain) {
  const TMutexLock lock(FLock);
  // A list that was closed meanwhile holds nothing; the chain is then freed with the parameter.
  if (!FOpen) return;
  chain.Append(std::move(FChain));
  FChain = std::move(chain);
}

}  // namespace guardian
