#include "common/Texts.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cstdio>
#include <optional>

namespace guardian {
namespace {

constexpr std::string_view kHexDigits = "0123456789ABCDEF";

bool IsAsciiAlphanumeric(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

std::string_view HtmlEntityOf(char c) {
  switch (c) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '"':
      return "&quot;";
    default:
      return {};
  }
}

// Surrogates are no characters, and UTF-8 ends at 10FFFF.
bool IsUtf8Character(char32_t point) {
  return point <= 0x10FFFF && (point < 0xD800 || point > 0xDFFF);
}

// The number of "#123" or "#x7B", if UTF-8 can hold that character.
std::optional<char32_t> NumericEntity(std::string_view name) {
  if (name.size() < 2 || name[0] != '#') return std::nullopt;
  const bool hexadecimal = name[1] == 'x' || name[1] == 'X';
  name.remove_prefix(hexadecimal ? 2 : 1);
  std::uint32_t code = 0;
  const auto [end, error] =
      std::from_chars(name.data(), name.data() + name.size(), code, hexadecimal ? 16 : 10);
  const bool whole = error == std::errc() && end == name.data() + name.size();
  if (!whole || code == 0 || !IsUtf8Character(code)) return std::nullopt;
  return code;
}

// The bytes of the entity with this name (between "&" and ";"); empty when there is none.
std::string DecodedEntity(std::string_view name) {
  struct TNamed {
    std::string_view Name;
    char Character;
  };
  constexpr std::array<TNamed, 5> kNamed = {
      {{"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}}};
  for (const TNamed& named : kNamed) {
    if (named.Name == name) return {named.Character};
  }
  std::string text;
  if (const auto code = NumericEntity(name)) AppendUtf8(text, *code);
  return text;
}

int HexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string ReplaceAll(std::string_view text, std::string_view from, std::string_view to) {
  std::string result;
  if (from.empty()) return std::string(text);
  result.reserve(text.size());
  std::size_t start = 0;
  for (std::size_t at = text.find(from); at != std::string_view::npos;
       at = text.find(from, start)) {
    result.append(text.substr(start, at - start)).append(to);
    start = at + from.size();
  }
  return result.append(text.substr(start));
}

std::string ToUpper(std::string_view text) {
  std::string result(text);
  for (char& c : result) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return result;
}

std::string HtmlEscape(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (const char c : text) {
    const std::string_view entity = HtmlEntityOf(c);
    if (entity.empty()) {
      result.push_back(c);
    } else {
      result.append(entity);
    }
  }
  return result;
}

void AppendUtf8(std::string& text, char32_t point) {
  const auto append = [&text](char32_t byte) { text.push_back(static_cast<char>(byte)); };
  const auto continuation = [&](unsigned shift) { append(0x80U | ((point >> shift) & 0x3FU)); };
  if (point < 0x80) return append(point);
  if (point < 0x800) {
    append(0xC0U | (point >> 6U));
  } else if (point < 0x10000) {
    append(0xE0U | (point >> 12U));
    continuation(6);
  } else {
    append(0xF0U | (point >> 18U));
    continuation(12);
    continuation(6);
  }
  continuation(0);
}

// A sequence is well-formed when its character, encoded again, gives the same bytes: an overlong
// form would come out shorter, and a wrong continuation byte different.
std::size_t Utf8Length(std::string_view text) {
  if (text.empty()) return 0;
  const auto first = static_cast<unsigned char>(text.front());
  const auto ones = static_cast<unsigned>(std::countl_one(first));
  const std::size_t length = std::max(1U, ones);
  if (ones == 1 || ones > 4 || text.size() < length) return 0;
  char32_t point = first & (0x7FU >> ones);
  for (const char c : text.substr(1, length - 1)) {
    point = (point << 6U) | (static_cast<unsigned char>(c) & 0x3FU);
  }
  std::string encoded;
  if (IsUtf8Character(point)) AppendUtf8(encoded, point);
  return encoded == text.substr(0, length) ? length : 0;
}

std::string HtmlDecode(std::string_view text) {
  constexpr std::size_t kLongestName = 10;
  std::string result;
  result.reserve(text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    const std::string_view rest = text.substr(at + 1, kLongestName);
    const std::size_t end = text[at] == '&' ? rest.find(';') : std::string_view::npos;
    const std::string decoded =
        end == std::string_view::npos ? std::string() : DecodedEntity(rest.substr(0, end));
    if (decoded.empty()) {
      result.push_back(text[at]);
    } else {
      result.append(decoded);
      at += end + 1;
    }
  }
  return result;
}

std::string LinkEncode(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (const char c : text) {
    if (IsAsciiAlphanumeric(c) || c == '-' || c == '.' || c == '_' || c == '~') {
      result.push_back(c);
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    result.push_back('%');
    result.push_back(kHexDigits[byte >> 4U]);
    result.push_back(kHexDigits[byte & 0x0FU]);
  }
  return result;
}

std::string LinkDecode(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    const bool encoded = text[at] == '%' && at + 2 < text.size() &&
                         HexDigitValue(text[at + 1]) >= 0 && HexDigitValue(text[at + 2]) >= 0;
    if (!encoded) {
      result.push_back(text[at]);
      continue;
    }
    result.push_back(
        static_cast<char>(HexDigitValue(text[at + 1]) * 16 + HexDigitValue(text[at + 2])));
    at += 2;
  }
  return result;
}

std::string QuoteArgument(std::string_view argument) {
  if (!argument.empty() && argument.find_first_of(" \t\r\n\"'") == std::string_view::npos) {
    return std::string(argument);
  }
  std::string result = "\"";
  for (const char c : argument) {
    if (c == '"' || c == '\\') result.push_back('\\');
    result.push_back(c);
  }
  return result + "\"";
}

std::string SafeFileName(std::string_view name) {
  constexpr std::string_view kUnsafe = "/\\:*?<>|\"";
  std::string result(name);
  for (char& c : result) {
    const bool control = static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
    if (control || kUnsafe.find(c) != std::string_view::npos) c = '_';
  }
  return result;
}

std::string FormatByteSize(std::uint64_t bytes) {
  constexpr std::array<const char*, 6> kUnits = {" KB", " MB", " GB", " TB", " PB", " EB"};
  if (bytes < 1024) return std::to_string(bytes) + " Bytes";
  auto size = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  // 1023.95 would show as 1024.0.
  while (size >= 1023.95 && unit + 1 < kUnits.size()) {
    size /= 1024;
    ++unit;
  }
  return FormatFixed(size, 0, 1) + kUnits[unit];
}

std::string Clipped(std::string_view text, std::size_t maxBytes) {
  if (text.size() <= maxBytes) return std::string(text);
  const std::size_t half = maxBytes / 2;
  return std::string(text.substr(0, half)) + "\n... " + std::to_string(text.size() - 2 * half) +
         " bytes left out ...\n" + std::string(text.substr(text.size() - half));
}

std::string FormatFixed(double value, int width, int decimals) {
  std::array<char, 400> text{};  // The largest double has 309 digits before the point.
  const int length = std::snprintf(text.data(), text.size(), "%*.*f", width, decimals, value);
  return {text.data(), static_cast<std::size_t>(std::clamp<int>(length, 0, 399))};
}

std::string JoinPath(std::string_view folder, std::string_view name) {
  std::string path(folder);
  if (!path.ends_with('/')) path.push_back('/');
  return path.append(name.starts_with('/') ? name.substr(1) : name);
}

std::string_view FileNameOf(std::string_view path) { return path.substr(path.rfind('/') + 1); }

}  // namespace guardian
