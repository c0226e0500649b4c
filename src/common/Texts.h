#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>

namespace guardian {

// The text with every occurrence of from replaced, left to right, the replacement not searched
// again. An empty from changes nothing.
[[nodiscard]] std::string ReplaceAll(std::string_view text, std::string_view from,
                                     std::string_view to);

// The pieces of a text between separators, found one after the other: a text of many pieces costs
// no memory. Lifetime: the text outlives it and the pieces.
class TPieces {
 public:
  using value_type = std::string_view;

  class const_iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = std::string_view;
    using difference_type = std::ptrdiff_t;
    using pointer = const std::string_view*;
    using reference = std::string_view;

    const_iterator() = default;
    const_iterator(std::string_view text, char separator, std::size_t begin) noexcept
        : FText(text), FSeparator(separator), FBegin(begin), FEnd(text.find(separator, begin)) {}

    std::string_view operator*() const noexcept { return FText.substr(FBegin, FEnd - FBegin); }
    const_iterator& operator++() noexcept {
      const bool last = FEnd == std::string_view::npos;
      *this = last ? const_iterator() : const_iterator(FText, FSeparator, FEnd + 1);
      return *this;
    }
    bool operator==(const const_iterator& other) const noexcept { return FBegin == other.FBegin; }

   private:
    std::string_view FText;
    char FSeparator = 0;
    std::size_t FBegin = std::string_view::npos;  // That is the end of the pieces.
    std::size_t FEnd = std::string_view::npos;    // That is the end of the text.
  };

  TPieces(std::string_view text, char separator) noexcept : FText(text), FSeparator(separator) {}

  // NOLINTBEGIN(readability-identifier-naming): a loop over a range asks for these names.
  [[nodiscard]] const_iterator begin() const noexcept { return {FText, FSeparator, 0}; }
  [[nodiscard]] const_iterator end() const noexcept { return {}; }
  // NOLINTEND(readability-identifier-naming): as above.

 private:
  const std::string_view FText;
  const char FSeparator;
};

// The pieces between separators; always at least one, possibly empty.
[[nodiscard]] inline TPieces Split(std::string_view text, char separator) {
  return {text, separator};
}

[[nodiscard]] inline bool Contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

// "Y" or "N".
[[nodiscard]] constexpr const char* YesNo(bool value) { return value ? "Y" : "N"; }

// The text with its ASCII letters in upper case, whatever the locale.
[[nodiscard]] std::string ToUpper(std::string_view text);

// "&", "<", ">" and the double quote as character entities; everything else as it stands.
[[nodiscard]] std::string HtmlEscape(std::string_view text);

// Appends the UTF-8 bytes of a code point, which must not be above 10FFFF.
void AppendUtf8(std::string& text, char32_t point);

// The length in bytes of the well-formed UTF-8 sequence at the start of the text; 0 when there is
// none.
[[nodiscard]] std::size_t Utf8Length(std::string_view text);

// Decodes "&amp;", "&lt;", "&gt;", "&quot;", "&apos;" and numeric entities (to UTF-8, a number
// above 10FFFF or of a surrogate stays as it stands), then nothing else.
[[nodiscard]] std::string HtmlDecode(std::string_view text);

// Percent-encodes every byte except ASCII letters, digits and "-._~", so that the result is one
// path segment of a link.
[[nodiscard]] std::string LinkEncode(std::string_view text);

// Undoes percent-encoding; a "%" that no two hexadecimal digits follow stays as it stands.
[[nodiscard]] std::string LinkDecode(std::string_view text);

// One command-line argument for showing: in double quotes when it is empty or holds blanks, tabs
// or quotes, with quotes and backslashes inside the quotes escaped by a backslash.
[[nodiscard]] std::string QuoteArgument(std::string_view argument);

// A file name made safe: "/", "\", ":", "*", "?", "<", ">", "|", the double quote and control
// characters become "_".
[[nodiscard]] std::string SafeFileName(std::string_view name);

// "512 Bytes", "1.5 KB", "10.2 MB", "3.1 GB": 1024 a step, one decimal from KB on.
[[nodiscard]] std::string FormatByteSize(std::uint64_t bytes);

// The text, or of a longer one its two ends with a note between them of how much was left out,
// about maxBytes in all.
[[nodiscard]] std::string Clipped(std::string_view text, std::size_t maxBytes);

// A number right-aligned in a field of the given width, with the given decimals.
[[nodiscard]] std::string FormatFixed(double value, int width, int decimals);

// The two joined by exactly one "/".
[[nodiscard]] std::string JoinPath(std::string_view folder, std::string_view name);

// What follows the last "/".
[[nodiscard]] std::string_view FileNameOf(std::string_view path);

}  // namespace guardian
