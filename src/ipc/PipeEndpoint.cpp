#include "ipc/PipeEndpoint.h"

#include <algorithm>
#include <cassert>

#include "common/MainThread.h"
#include "ipc/PipeThreads.h"

namespace guardian {
namespace {

// Null when the list has no match.
template <typename TPredicate>
std::shared_ptr<TPipeWorkers> TakeFrom(std::vector<std::shared_ptr<TPipeWorkers>>& list,
                                       const TPredicate& matches) {
  const auto found = std::find_if(list.begin(), list.end(), matches);
  if (found == list.end()) return nullptr;
  std::shared_ptr<TPipeWorkers> taken = std::move(*found);
  list.erase(found);
  return taken;
}

}  // namespace

void RequireMainThread(const std::string& refusal) {
  if (!IsMainThread()) throw KZException(refusal);
}

void TPipeEndpoint::RequireValidName(const std::string& name) {
  constexpr std::size_t kTooLong = 64;
  if (name.empty() || name.size() >= kTooLong || name.find('\\') != std::string::npos) {
    throw EPipeException("Invalid pipe name specified!");
  }
}

TPipeEndpoint::TWorkers TPipeEndpoint::TakeBySerial(std::vector<TWorkers>& list,
                                                    std::int64_t serial) {
  return TakeFrom(list,
                  [&](const TWorkers& each) { return each->Connection().Serial() == serial; });
}

TPipeEndpoint::TWorkers TPipeEndpoint::TakeByPipe(std::vector<TWorkers>& list, std::int64_t pipe) {
  return TakeFrom(list, [&](const TWorkers& each) { return each->Connection().Pipe() == pipe; });
}

void TPipeEndpoint::RaiseEvent(const TKZMessage& message) {
  switch (message.Msg) {
    case kMsgPipeErrorListener:
      return RaiseError(message, TPipeContext::pcListener);
    case kMsgPipeErrorWorker:
      return RaiseError(message, TPipeContext::pcWorker);
    case kMsgPipeSent:
      return RaiseSent(message);
    case kMsgPipeMessage:
      return RaiseMessage(message);
    default:
      return;
  }
}

// The functions below call a copy of the handler, because the handler may free the object and, with
// it, the slot.

void TPipeEndpoint::RaiseError(const TKZMessage& message, TPipeContext context) {
  if (const TOnPipeError handler = OnPipeError) {
    handler(*this, message.WParam, context, message.LParam);
  }
}

void TPipeEndpoint::RaiseDisconnect(std::int64_t pipe) {
  assert(IsMainThread());
  if (const TOnPipeDisconnect handler = OnPipeDisconnect) handler(*this, pipe);
}

// LParam, which is 0, and not the byte count: see TOnPipeSent.
void TPipeEndpoint::RaiseSent(const TKZMessage& message) {
  if (const TOnPipeSent handler = OnPipeSent.Handler()) {
    handler(*this, message.WParam, static_cast<std::uint32_t>(message.LParam));
  }
}

void TPipeEndpoint::RaiseMessage(const TKZMessage& message) {
  const std::string_view payload = MessagePayload(message);
  if (payload.empty()) return;
  if (const TOnPipeMessage handler = OnPipeMessage) handler(*this, message.WParam, payload);
}

}  // namespace guardian
