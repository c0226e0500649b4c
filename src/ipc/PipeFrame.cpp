#include "ipc/PipeFrame.h"

#include <array>
#include <cstring>

namespace guardian {

std::string BuildFrame(std::string_view payload) {
  std::string frame;
  AppendFrame(frame, payload);
  return frame;
}

void AppendFrame(std::string& text, std::string_view payload) {
  THeaderRec header;
  std::memcpy(header.Tag, kFrameTag.data(), sizeof(header.Tag));
  header.Size = static_cast<std::uint32_t>(payload.size());
  std::array<char, sizeof(header)> bytes;
  std::memcpy(bytes.data(), &header, sizeof(header));
  text.reserve(text.size() + payload.size() + kFrameOverhead);
  text.append(bytes.data(), bytes.size()).append(payload).append(kFrameTrailer);
}

void TFrameParser::Feed(std::string_view bytes, const TSink& sink) {
  FBytes.append(bytes);
  TStep step = TStep::Took;
  while (step == TStep::Took) step = TakeFrame(sink);
  if (step == TStep::Broken) FStart = FBytes.size();
  Compact();
}

TFrameParser::TStep TFrameParser::TakeFrame(const TSink& sink) {
  const std::string_view rest = std::string_view(FBytes).substr(FStart);
  // One byte more than the shortest frame, so that a frame without payload waits for what follows
  // it; the other end counts on neither more nor less.
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

// Moves the rest to the front only when at least as many bytes before it are done with, so that
// each byte is moved a constant number of times at most.
void TFrameParser::Compact() {
  constexpr std::size_t kKeptCapacity = 65'536;
  if (FStart == FBytes.size()) {
    FBytes.clear();
    // The memory of one huge frame is not kept for the rest of the connection.
    if (FBytes.capacity() > kKeptCapacity) FBytes.shrink_to_fit();
    FStart = 0;
  } else if (FStart >= FBytes.size() - FStart) {
    FBytes.erase(0, FStart);
    FStart = 0;
  }
}

}  // namespace guardian
