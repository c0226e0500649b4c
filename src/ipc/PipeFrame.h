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

// What a frame has in front of its payload, in the machine's byte order.
struct THeaderRec {
  char Tag[8];
  std::uint32_t Size;  // Of the payload alone.
};
static_assert(sizeof(THeaderRec) == 12 && offsetof(THeaderRec, Size) == 8);

// Tag and trailer included, the payload not.
inline constexpr std::size_t kFrameOverhead = sizeof(THeaderRec) + kFrameTrailer.size();

inline constexpr std::uint32_t kNoFrameLimit = std::numeric_limits<std::uint32_t>::max();

// The frame of a payload of less than 4 GiB: header, payload, trailer.
[[nodiscard]] std::string BuildFrame(std::string_view payload);

// The same at the end of an existing text.
void AppendFrame(std::string& text, std::string_view payload);

// Puts the payloads together that a stream of bytes carries in frames, whatever pieces it comes
// in. The cost is linear in the bytes; the bytes kept are at most one frame and what came with its
// last piece.
// Threads: not shared; each connection's reader has one.
class TFrameParser {
 public:
  using TSink = std::function<void(std::string_view payload)>;

  // A header that announces a payload of more than maxFrameSize bytes is an error like a wrong tag.
  explicit TFrameParser(std::uint32_t maxFrameSize = kNoFrameLimit) : FMaxFrameSize(maxFrameSize) {}

  // Takes the next bytes of the stream and hands over the payloads that they complete, in order;
  // each is valid during its call only. A framing error drops everything that is buffered, also
  // good frames behind it, without a report.
  void Feed(std::string_view bytes, const TSink& sink);

  // The same in two steps, for bytes that are read straight into the parser: room for so many, of
  // which Filled then says how many came.
  [[nodiscard]] std::span<char> Room(std::size_t bytes);
  void Filled(std::size_t bytes, const TSink& sink);

  // Bytes that wait for more.
  [[nodiscard]] std::size_t Buffered() const noexcept { return FEnd - FStart; }

 private:
  enum class TStep { Took, NeedMore, Broken };

  TStep TakeFrame(const TSink& sink);
  void Compact();

  const std::uint32_t FMaxFrameSize;
  std::string FBytes;
  std::size_t FStart = 0;  // Bytes before it are done with.
  std::size_t FEnd = 0;    // Bytes from it on are room.
};

}  // namespace guardian
