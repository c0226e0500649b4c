#pragma once

#include <string>
#include <string_view>

namespace guardian {

// UTF-16 to UTF-8; a surrogate without its partner becomes the replacement character U+FFFD.
[[nodiscard]] std::string Utf16ToUtf8(std::u16string_view text);

// The text in the given 8-bit code page, as named by iconv, when that loses nothing; else, and when
// there is no such code page, in UTF-8. No byte-order mark.
[[nodiscard]] std::string EncodeForCodePage(std::u16string_view text, const std::string& codePage);

// The code page of the process: the codeset of the locale's LC_CTYPE.
[[nodiscard]] std::string SystemCodePage();

}  // namespace guardian
