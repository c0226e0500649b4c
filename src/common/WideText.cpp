#include "common/WideText.h"

#include <iconv.h>
#include <langinfo.h>

#include <bit>
#include <cstdint>
#include <optional>

#include "common/Texts.h"

namespace guardian {
namespace {

constexpr const char* kWideCodePage =
    std::endian::native == std::endian::little ? "UTF-16LE" : "UTF-16BE";

bool IsHighSurrogate(char16_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool IsLowSurrogate(char16_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

// Takes the first code point off the text.
char32_t TakeCodePoint(std::u16string_view& text) {
  const char16_t first = text.front();
  text.remove_prefix(1);
  if (!IsHighSurrogate(first)) return IsLowSurrogate(first) ? U'\uFFFD' : char32_t{first};
  if (text.empty() || !IsLowSurrogate(text.front())) return U'\uFFFD';
  const char16_t second = text.front();
  text.remove_prefix(1);
  return 0x10000 + ((char32_t{first} - 0xD800) << 10) + (char32_t{second} - 0xDC00);
}

// One direction of a conversion between two code pages.
// Threads: not shared.
class TConversion {
 public:
  TConversion(const char* to, const char* from) : FHandle(::iconv_open(to, from)) {}
  ~TConversion() {
    if (IsOpen()) ::iconv_close(FHandle);
  }
  TConversion(const TConversion&) = delete;
  TConversion& operator=(const TConversion&) = delete;

  // None when the code page is unknown or the bytes have no equal in it.
  std::optional<std::string> Convert(std::string_view bytes) {
    if (!IsOpen()) return std::nullopt;
    // Four bytes a character, plus the escape sequences of stateful code pages.
    std::string result(bytes.size() * 4 + 64, '\0');
    char* input = const_cast<char*>(bytes.data());
    std::size_t inputLeft = bytes.size();
    char* output = result.data();
    std::size_t outputLeft = result.size();
    if (::iconv(FHandle, &input, &inputLeft, &output, &outputLeft) != 0) return std::nullopt;
    if (::iconv(FHandle, nullptr, nullptr, &output, &outputLeft) != 0) return std::nullopt;
    result.resize(result.size() - outputLeft);
    return result;
  }

 private:
  [[nodiscard]] bool IsOpen() const { return reinterpret_cast<std::intptr_t>(FHandle) != -1; }

  iconv_t FHandle;
};

std::optional<std::string> ConvertWithoutLoss(std::u16string_view text,
                                              const std::string& codePage) {
  const std::string_view wide(reinterpret_cast<const char*>(text.data()),
                              text.size() * sizeof(char16_t));
  const auto narrow = TConversion(codePage.c_str(), kWideCodePage).Convert(wide);
  if (!narrow) return std::nullopt;
  const auto back = TConversion(kWideCodePage, codePage.c_str()).Convert(*narrow);
  return back == wide ? narrow : std::nullopt;
}

}  // namespace

std::string Utf16ToUtf8(std::u16string_view text) {
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) AppendUtf8(result, TakeCodePoint(text));
  return result;
}

std::string EncodeForCodePage(std::u16string_view text, const std::string& codePage) {
  if (codePage == "UTF-8") return Utf16ToUtf8(text);
  const auto narrow = ConvertWithoutLoss(text, codePage);
  return narrow ? *narrow : Utf16ToUtf8(text);
}

std::string SystemCodePage() { return ::nl_langinfo(CODESET); }

}  // namespace guardian
