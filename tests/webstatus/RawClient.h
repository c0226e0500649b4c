#pragma once

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>

#include <algorithm>
#include <stdexcept>

#include "common/Exceptions.h"
#include "common/FileDescriptor.h"
#include "webstatus/HttpClient.h"

namespace guardian {

inline constexpr int kHangLimitMs = 30'000;  // Bounds a failure only.

// Lets bind or connect have the address of this machine.
template <typename TCall>
int OnLoopback(TCall call, const TFileDescriptor& socket, std::uint16_t port) {
  const sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
  return call(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

template <typename TValue>
void SetOption(const TFileDescriptor& socket, int level, int option, const TValue& value) {
  ::setsockopt(socket.Get(), level, option, &value, sizeof(value));
}

// A listening socket, also beside connections that have just ended; none when the port is taken.
// Port 0 takes any free one.
inline TFileDescriptor ListenOnLoopback(std::uint16_t port) {
  TFileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  SetOption(socket, SOL_SOCKET, SO_REUSEADDR, 1);
  const bool isBound = OnLoopback(::bind, socket, port) == 0;
  if (!isBound || ::listen(socket.Get(), 1) != 0) socket.Close();
  return socket;
}

inline std::uint16_t PortOf(const TFileDescriptor& socket) {
  sockaddr_in address{};
  socklen_t length = sizeof(address);
  ::getsockname(socket.Get(), reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

// The text of a page of this machine; empty when nobody answers.
inline std::string Page(const std::string& name, std::uint16_t port = 8900,
                        const std::string& host = "localhost") {
  try {
    const std::string site = host + ":" + std::to_string(port) + "/";
    return HttpGet(site + name, std::chrono::seconds(60)).Body;
  } catch (const SoftException&) {
    return {};
  }
}

struct TRawReply {
  std::string Head;
  std::string Body;

  [[nodiscard]] int Status() const { return Head.size() < 12 ? 0 : std::stoi(Head.substr(9, 3)); }
  [[nodiscard]] bool Has(std::string_view headerLine) const {
    return Head.find("\r\n" + std::string(headerLine) + "\r\n") != std::string::npos;
  }
};

// A client that sends any bytes, well-formed or not.
class TRawClient {
 public:
  // The end of a connection that somebody else has made.
  explicit TRawClient(TFileDescriptor socket) : FSocket(std::move(socket)) {}

  // Throws when the connect fails. The receive buffer's size is the system's when 0.
  explicit TRawClient(std::uint16_t port, int receiveBufferBytes = 0)
      : FSocket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    if (receiveBufferBytes > 0) SetOption(FSocket, SOL_SOCKET, SO_RCVBUF, receiveBufferBytes);
    SetOption(FSocket, IPPROTO_TCP, TCP_NODELAY, 1);
    // A second call waits for the same connection. The alarms of a fuzzer interrupt the first.
    if (RetryOnEintr([&] { return OnLoopback(::connect, FSocket, port); }) != 0) {
      throw std::runtime_error("connect: " + std::to_string(errno));
    }
  }

  // When the peer has gone, the bytes are lost and the next read shows it.
  void Send(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t sent = RetryOnEintr(
          [&] { return ::send(FSocket.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL); });
      FReset = FReset || sent < 0;
      if (sent < 0) return;
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
  }

  // The text up to the next empty line; nothing when the connection ends before.
  std::string ReadToEmptyLine() {
    constexpr std::string_view kEnd = "\r\n\r\n";
    while (FInput.find(kEnd) == std::string::npos) {
      if (!ReadSome()) return {};
    }
    return Take(FInput.find(kEnd) + kEnd.size());
  }

  // The head of the next answer. Throws when the bytes are not an answer.
  TRawReply ReadHead() {
    TRawReply reply{ReadToEmptyLine(), ""};
    if (reply.Head.empty() || reply.Head.starts_with("HTTP/1.1 ")) return reply;
    throw std::runtime_error("no answer: " + reply.Head);
  }

  // Reads on in the body that the head announces, to its end, for so many bytes or to the end of
  // the connection, whichever comes first.
  void ReadBody(TRawReply& reply, std::size_t bytes = std::string::npos) {
    const std::size_t at = reply.Head.find("Content-Length: ");
    if (at == std::string::npos) return;
    const std::size_t length = std::stoul(reply.Head.substr(at + 16));
    const std::size_t wanted = std::min(length - reply.Body.size(), bytes);
    while (FInput.size() < wanted && ReadSome()) continue;
    reply.Body += Take(std::min(wanted, FInput.size()));
  }

  TRawReply ReadReply() {
    TRawReply reply = ReadHead();
    ReadBody(reply);
    return reply;
  }

  TRawReply Get(const std::string& target) {
    Send("GET " + target + " HTTP/1.1\r\n\r\n");
    return ReadReply();
  }

  // Everything up to the end of the connection.
  std::string ReadToEnd() {
    while (ReadSome()) continue;
    return Take(FInput.size());
  }

  // Whether the connection ended by a reset, which may lose an answer.
  [[nodiscard]] bool WasReset() const {
    int error = 0;  // After an orderly end a reset shows only here.
    socklen_t length = sizeof(error);
    ::getsockopt(FSocket.Get(), SOL_SOCKET, SO_ERROR, &error, &length);
    return FReset || error != 0;
  }

  // Waits for the reset or the end of the connection, without reading.
  bool WaitGone(int timeoutMs) {
    pollfd waited{FSocket.Get(), POLLRDHUP, 0};
    return ::poll(&waited, 1, timeoutMs) == 1;
  }

  // Closes by a reset.
  void Reset() {
    SetOption(FSocket, SOL_SOCKET, SO_LINGER, linger{1, 0});
    FSocket.Close();
  }

 private:
  // False at the end of the connection. Throws when nothing comes within the hang limit.
  bool ReadSome() {
    pollfd waited{FSocket.Get(), POLLIN, 0};
    if (RetryOnEintr([&] { return ::poll(&waited, 1, kHangLimitMs); }) != 1) {
      throw std::runtime_error("no answer, no end");
    }
    char bytes[65'536];
    const ssize_t got =
        RetryOnEintr([&] { return ::recv(FSocket.Get(), bytes, sizeof(bytes), 0); });
    FReset = FReset || got < 0;
    if (got <= 0) return false;
    FInput.append(bytes, static_cast<std::size_t>(got));
    return true;
  }

  std::string Take(std::size_t count) {
    std::string rest = FInput.substr(count);
    FInput.resize(count);
    FInput.swap(rest);  // So that it keeps no more memory than it needs.
    return rest;
  }

  TFileDescriptor FSocket;
  std::string FInput;
  bool FReset = false;
};

}  // namespace guardian
