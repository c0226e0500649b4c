// Keeps libFuzzer's changes within single pages of the database, and its header valid, most of the
// time: SQLite looks no further at a file whose header is wrong.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace {

constexpr std::size_t kSwitchBytes = 1;  // In front of the database.
constexpr std::size_t kPageBytes = 512;  // Of the seeds.

void MutatePage(std::uint8_t* page) {
  std::array<std::uint8_t, kPageBytes> bytes{};
  std::copy_n(page, kPageBytes, bytes.begin());
  const std::size_t size = LLVMFuzzerMutate(bytes.data(), kPageBytes, kPageBytes);
  // What a deletion leaves free at the end keeps its old content.
  std::copy_n(bytes.begin(), size, page);
}

void MendHeader(std::uint8_t* database, std::size_t size) {
  constexpr std::array<std::uint8_t, 24> kStart = {'S', 'Q', 'L', 'i', 't', 'e', ' ', 'f',
                                                   'o', 'r', 'm', 'a', 't', ' ', '3', 0,
                                                   2,   0,   1,   1,   0,   64,  32,  32};
  std::copy(kStart.begin(), kStart.end(), database);
  // The number of pages counts only while two other numbers agree.
  const std::size_t pages = size / kPageBytes;
  database[30] = static_cast<std::uint8_t>(pages >> 8U);
  database[31] = static_cast<std::uint8_t>(pages);
  std::copy_n(database + 24, 4, database + 92);
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t maxSize, unsigned seed) {
  const std::size_t pages = size < kSwitchBytes ? 0 : (size - kSwitchBytes) / kPageBytes;
  if (pages == 0 || seed % 8 == 0) return LLVMFuzzerMutate(data, size, maxSize);
  std::uint8_t* database = data + kSwitchBytes;
  MutatePage(database + seed / 8 % pages * kPageBytes);
  if (seed % 8 != 1) MendHeader(database, size - kSwitchBytes);
  // Repairs take a hundred times as long as reads.
  data[0] = seed / 16 % 8 == 0 ? 0 : 1;
  return size;
}
