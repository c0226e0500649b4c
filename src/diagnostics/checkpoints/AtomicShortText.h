#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace guardian {

// A short string, a length byte and then the characters, that one thread overwrites while others
// read it. It is made of relaxed atomic words: a reader may see a mixture of two texts, but always
// a length within bounds, and the writer pays no more than plain stores.
// Owner: the record that it is a field of.
// Threads: Store by one thread; Load by any.
template <std::size_t Bytes, std::size_t MaxLength>
class TAtomicShortText {
  static_assert(Bytes % sizeof(std::uint64_t) == 0 && MaxLength < Bytes && MaxLength <= 255);

 public:
  // A copy to look at.
  class TCopy {
   public:
    [[nodiscard]] std::string_view View() const noexcept {
      const auto length = static_cast<unsigned char>(FBytes[0]);
      return {FBytes.data() + 1, std::min<std::size_t>(length, MaxLength)};
    }

   private:
    friend class TAtomicShortText;
    std::array<char, Bytes> FBytes;
  };

  // Keeps the first MaxLength bytes of the text. The words are put together in registers. Through a
  // buffer of bytes it would be slower: reading the buffer back costs more than all the rest.
  void Store(std::string_view text) noexcept {
    const std::size_t length = std::min(text.size(), MaxLength);
    StoreWord(0, FirstCharacters(text.data(), length) << 8 | length);
    std::size_t index = 1;
    for (std::size_t start = kWordBytes - 1; start < length; start += kWordBytes) {
      StoreWord(index++, LaterCharacters(text.data() + start, length - start));
    }
  }

  [[nodiscard]] TCopy Load() const noexcept {
    TCopy copy;
    std::size_t words = 1;
    for (std::size_t i = 0; i < words; ++i) {
      const std::uint64_t word = FWords[i].load(std::memory_order_relaxed);
      std::memcpy(copy.FBytes.data() + i * kWordBytes, &word, kWordBytes);
      if (i == 0) words = copy.View().size() / kWordBytes + 1;
    }
    return copy;
  }

 private:
  static constexpr std::size_t kWordBytes = sizeof(std::uint64_t);
  static_assert(std::endian::native == std::endian::little, "the first byte is the lowest");

  template <typename TWord>
  static std::uint64_t Read(const char* bytes) noexcept {
    TWord word;
    std::memcpy(&word, bytes, sizeof(word));
    return word;
  }

  // At least the first 7 characters of a text, then zeros.
  static std::uint64_t FirstCharacters(const char* text, std::size_t length) noexcept {
    if (length >= 8) return Read<std::uint64_t>(text);
    if (length >= 4) {
      return Read<std::uint32_t>(text) | Read<std::uint32_t>(text + length - 4)
                                             << (8 * (length - 4));
    }
    if (length >= 2) {
      return Read<std::uint16_t>(text) | Read<std::uint16_t>(text + length - 2)
                                             << (8 * (length - 2));
    }
    return length == 1 ? Read<std::uint8_t>(text) : 0;
  }

  // The next 8 characters; when fewer are left, those and zeros. The 7 bytes before the text can be
  // read.
  static std::uint64_t LaterCharacters(const char* text, std::size_t left) noexcept {
    if (left >= kWordBytes) return Read<std::uint64_t>(text);
    return Read<std::uint64_t>(text + left - kWordBytes) >> (8 * (kWordBytes - left));
  }

  void StoreWord(std::size_t index, std::uint64_t word) noexcept {
    FWords[index].store(word, std::memory_order_relaxed);
  }

  std::array<std::atomic<std::uint64_t>, Bytes / kWordBytes> FWords{};
};

}  // namespace guardian
