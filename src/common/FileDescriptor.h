#pragma once

#include <cerrno>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

namespace guardian {

// The only owner of a descriptor; closes it in the destructor.
// Threads: not shared; a descriptor that two threads use has an owner that says how it ends.
class TFileDescriptor {
 public:
  TFileDescriptor() noexcept = default;
  explicit TFileDescriptor(int descriptor) noexcept : FDescriptor(descriptor) {}
  ~TFileDescriptor() { Close(); }
  TFileDescriptor(TFileDescriptor&& other) noexcept : FDescriptor(other.Release()) {}
  TFileDescriptor& operator=(TFileDescriptor&& other) noexcept {
    if (this != &other) {
      Close();
      FDescriptor = other.Release();
    }
    return *this;
  }
  TFileDescriptor(const TFileDescriptor&) = delete;
  TFileDescriptor& operator=(const TFileDescriptor&) = delete;

  // The number for one call; -1 when empty.
  [[nodiscard]] int Get() const noexcept { return FDescriptor; }
  [[nodiscard]] explicit operator bool() const noexcept { return FDescriptor >= 0; }

  // Gives the ownership up.
  [[nodiscard]] int Release() noexcept { return std::exchange(FDescriptor, -1); }

  // Closes now. Never repeated, also not on EINTR: Linux has released the number by then.
  void Close() noexcept;

 private:
  int FDescriptor = -1;
};

// Repeats a system call that was interrupted by a signal. Not for close, poll, sleep or connect.
template <typename TCall>
auto RetryOnEintr(TCall&& call) {
  while (true) {
    const auto result = call();
    if (result != -1 || errno != EINTR) return result;
  }
}

// Whether it is open on a regular file: no pipe, device, folder or socket. Async-signal-safe.
[[nodiscard]] bool IsRegularFile(const TFileDescriptor& file) noexcept;

// Writes all bytes, however many calls that takes. Returns 0 or the error number.
[[nodiscard]] int WriteAll(int descriptor, std::string_view bytes) noexcept;

// Reads from the descriptor's position to the end of the file, or until maxBytes are read.
// Returns 0 or the error number; the text then holds what had been read.
[[nodiscard]] int ReadToEnd(int descriptor, std::size_t maxBytes, std::string& text);

}  // namespace guardian
