#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <span>
#include <string>
#include <string_view>

namespace guardian {

inline constexpr std::string_view kFrameTag = "***KZMSG";
inline constexpr std::string_view kFrameTrailer = "**MSGEND";

// A frame's header, in front of the payload, in the machine's byte order.
struct THeaderRec {
  char Tag[8];
  std::uint32_t Size;  // Of the payload alone.
};
static_assert(sizeof(THeaderRec) == 12 && offsetof(THeaderRec, Size) == 8);

// The bytes of a frame without its payload.
inline constexpr std::size_t kFrameOverhead = sizeof(THeaderRec) + kFrameTrailer.size();

inline constexpr std::uint32_t kNoFrameLimit = std::numeric_limits<std::uint32_t>::max();

// Appends the frame of a payload of less than 4 GiB to the text: header, payload, trailer.
void AppendFrame(std::string& text, std::string_view payload);

// Finds the payloads in a stream of framed bytes, in whatever pieces the stream comes. The cost is
// linear in the bytes; the bytes kept are at most one frame and what came with its last piece.
//
//   const std::span<char> room = parser.Room(4096);
//   parser.Filled(read(socket, room.data(), room.size()), onPayload);
//
// Owner: each connection's reader has its own.
// Threads: not shared.
class TFrameParser {
 public:
  using TSink = std::function<void(std::string_view payload)>;

  // A header that announces a payload of more than maxFrameSize bytes is an error like a wrong tag.
  explicit TFrameParser(std::uint32_t maxFrameSize = kNoFrameLimit) : FMaxFrameSize(maxFrameSize) {}

  // Room for the stream's next bytes, valid until the next call.
  [[nodiscard]] std::span<char> Room(std::size_t bytes);

  // Takes that many bytes from the start of the room and hands over the payloads that they
  // complete, in order; each is valid during its call only. A framing error drops everything that
  // is buffered, also good frames behind it, without a report.
  void Filled(std::size_t bytes, const TSink& sink);

  // Bytes that wait for more.
  [[nodiscard]] std::size_t Buffered() const noexcept { return FEnd - FStart; }

 private:
  enum class TStep { Took, NeedMore, Broken };

  TStep TakeFrame(const TSink& sink);
  void Compact();

  const std::uint32_t FMaxFrameSize;
  std::string FBytes;
  // From FStart to FEnd stand the bytes that wait; before them is waste, behind them room.
  std::size_t FStart = 0;
  std::size_t FEnd = 0;
};

}  // namespace guardian
