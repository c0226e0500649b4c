#include "ipc/PipeFrame.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace guardian {

void AppendFrame(std::string& text, std::string_view payload) {
  THeaderRec header;
  std::memcpy(header.Tag, kFrameTag.data(), sizeof(header.Tag));
  header.Size = static_cast<std::uint32_t>(payload.size());
  std::array<char, sizeof(header)> bytes;
  std::memcpy(bytes.data(), &header, sizeof(header));
  text.reserve(text.size() + payload.size() + kFrameOverhead);
  text.append(bytes.data(), bytes.size()).append(payload).append(kFrameTrailer);
}

// The text only grows, so that room is made once and not with every read.
std::span<char> TFrameParser::Room(std::size_t bytes) {
  if (FBytes.size() < FEnd + bytes) FBytes.resize(std::max(FEnd + bytes, 2 * FBytes.size()));
  return {FBytes.data() + FEnd, bytes};
}

void TFrameParser::Filled(std::size_t bytes, const TSink& sink) {
  FEnd += bytes;
  TStep step = TStep::Took;
  while (step == TStep::Took) step = TakeFrame(sink);
  if (step == TStep::Broken) FStart = FEnd;
  Compact();
}

TFrameParser::TStep TFrameParser::TakeFrame(const TSink& sink) {
  const std::string_view rest = std::string_view(FBytes).substr(FStart, Buffered());
  // One byte more than the shortest frame is needed, so that a frame without payload waits for what
  // follows it; the other end counts on exactly that.
  if (rest.size() <= kFrameOverhead) return TStep::NeedMore;
  THeaderRec header;
  std::memcpy(&header, rest.data(), sizeof(header));
  if (!rest.starts_with(kFrameTag) || header.Size > FMaxFrameSize) return TStep::Broken;
  if (rest.size() - kFrameOverhead < header.Size) return TStep::NeedMore;
  const std::string_view payload = rest.substr(sizeof(header), header.Size);
  if (!rest.substr(sizeof(header) + header.Size).starts_with(kFrameTrailer)) return TStep::Broken;
  FStart += kFrameOverhead + header.Size;
  sink(payload);
  return TStep::Took;
}

// Moves the rest to the front only when the waste before it is at least as long, so that each byte
// is moved a constant number of times at most.
void TFrameParser::Compact() {
  constexpr std::size_t kKeptBytes = 65'536;
  if (FStart < Buffered()) return;
  std::copy(FBytes.begin() + static_cast<std::ptrdiff_t>(FStart),
            FBytes.begin() + static_cast<std::ptrdiff_t>(FEnd), FBytes.begin());
  FEnd -= FStart;
  FStart = 0;
  if (FEnd > 0 || FBytes.size() <= kKeptBytes) return;
  // The memory of one huge frame is not kept for the rest of the connection.
  FBytes.clear();
  FBytes.shrink_to_fit();
}

}  // namespace guardian
