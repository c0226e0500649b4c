#pragma once

#include <atomic>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>

#include "common/Clock.h"
#include "common/Event.h"
#include "webstatus/HttpServer.h"
#include "webstatus/HttpThreads.h"

namespace guardian {

class THttpConnection;

// Where a connection comes from.
struct THttpPeer {
  explicit THttpPeer(boost::asio::ip::address address);

  boost::asio::ip::address Address;  // In the one form that it has as IPv4 and as mapped IPv6.
  bool IsLocal = false;
};

// The connections that are open: who gets a place, who is too slow, who is still being answered.
// Owner: the server from one Activate to the next Deactivate.
// Threads: WaitUntilNoneBusy by the owner; the rest by the server's own thread, and by the owner
// when that has ended.
// Lifetime: the references outlive it, and it outlives its connections.
class THttpConnections {
 public:
  THttpConnections(const THttpServer::THandler& handler, const THttpServerOptions& options,
                   TClock& clock, THttpThreads& threads)
      : FHandler(handler), FOptions(options), FClock(clock), FThreads(threads) {}
  THttpConnections(const THttpConnections&) = delete;
  THttpConnections& operator=(const THttpConnections&) = delete;

  // Serves the socket, or has it wait in a queue, which those of this machine pass by. Closes it
  // when its peer has its share already, when too many wait, and when it throws: std::bad_alloc and
  // boost::system::system_error.
  void Welcome(boost::asio::ip::tcp::socket socket);

  // Of those that are open and those that wait.
  [[nodiscard]] std::size_t Count() const { return FOpen.size() + FWaiting.size(); }

  // Closes those whose time is over, and gives the memory of a flood back to the system when few
  // are left; the heap would keep it.
  void CloseTooSlow();

  // Lets in who has waited longest, if there is room, and then the others. Throws as Welcome.
  void LetInNext();

  // From now on a connection ends with its answer; those without one end at once.
  void FinishAnswers();
  void WaitUntilNoneBusy(std::chrono::milliseconds timeout) { FNoneBusy.WaitFor(timeout); }
  void CloseAll();

 private:
  friend class THttpConnection;

  struct TWaiting {
    THttpPeer Peer;
    boost::asio::ip::tcp::socket Socket;
  };

  [[nodiscard]] bool HasItsShare(const THttpPeer& peer) const;
  // Makes room by closing one when all places are taken: the one that has been idle longest, else
  // the one that has been busy longest, when that is long enough.
  [[nodiscard]] bool MakeRoom(const THttpPeer& peer);
  void Open(const THttpPeer& peer, boost::asio::ip::tcp::socket socket);
  [[nodiscard]] THttpConnection* LongestBusy(const THttpPeer& newcomer);
  void BusyEnded();
  [[nodiscard]] std::int64_t In(std::chrono::milliseconds duration) const {
    return FClock.TickCount() + duration.count();
  }

  const THttpServer::THandler& FHandler;
  const THttpServerOptions& FOptions;
  TClock& FClock;
  THttpThreads& FThreads;
  std::list<THttpConnection*> FOpen;  // The longest idle first.
  std::list<TWaiting> FWaiting;       // At most MaxConnections.
  std::size_t FBusy = 0;
  bool FStopping = false;
  // A connection has held much memory. Atomic: a blocking thread may be the last to let it go.
  std::atomic<bool> FGrown = false;
  TKZEvent FNoneBusy{"HTTPServerNoneBusy", TEventReset::Manual};
};

}  // namespace guardian
