#include "common/Texts.h"

#include <limits>

#include "support/TestSupport.h"

namespace guardian {
namespace {

template <typename TFrom, typename TFunction>
void Check(const std::vector<std::pair<TFrom, std::string>>& cases, TFunction&& function) {
  for (const auto& [from, to] : cases) EXPECT_EQ(function(from), to) << from;
}

TEST(TextsTest, EscapesForHtmlAndDecodesOnce) {
  EXPECT_EQ(HtmlEscape("<a '\xC3\xBC' href=\"x\">&amp;"),
            "&lt;a '\xC3\xBC' href=&quot;x&quot;&gt;&amp;amp;");
  const std::string stays =
      "&unknown;&;&#;&#x;&#-5;&#6 5;&#x110000;&#xD800;&#0;&#99999999999; &amp";
  Check<std::string>({{"&amp;lt;&lt;&gt;&quot;&apos;", "&lt;<>\"'"},
                      {"&#65;&#x42;&#X43;&#xFFFF;&#x10FFFF;", "ABC\xEF\xBF\xBF\xF4\x8F\xBF\xBF"},
                      {stays, stays}},
                     &HtmlDecode);
}

TEST(TextsTest, EncodesAndDecodesLinks) {
  std::string everyByte;
  for (int byte = 0; byte < 256; ++byte) everyByte.push_back(static_cast<char>(byte));
  EXPECT_EQ(LinkDecode(LinkEncode(everyByte)), everyByte);
  EXPECT_EQ(LinkEncode("aZ09-._~/ %\xFF"), "aZ09-._~%2F%20%25%FF");
  Check<std::string>({{"%41%2f%2F", "A//"}, {"%4", "%4"}, {"%G1%4G%%41+%", "%G1%4G%A+%"}},
                     &LinkDecode);
}

TEST(TextsTest, QuotesArgumentsThatNeedItAndMakesFileNamesSafe) {
  Check<std::string>({{"", "\"\""},
                      {"plain\\path", "plain\\path"},
                      {"a\tb", "\"a\tb\""},
                      {"say \"hi\\\"", "\"say \\\"hi\\\\\\\"\""},
                      {"it's", "\"it's\""}},
                     &QuoteArgument);
  EXPECT_EQ(SafeFileName(" ..\xC3\xBC'$/\\:*?<>|\"\n\x1F\x7F"), " ..\xC3\xBC'$____________");
}

TEST(TextsTest, FormatsNumbers) {
  constexpr std::uint64_t kMega = 1024 * 1024;
  Check<std::uint64_t>({{1023, "1023 Bytes"},
                        {1024, "1.0 KB"},
                        {kMega - 100, "1023.9 KB"},
                        {kMega - 1, "1.0 MB"},
                        {std::numeric_limits<std::uint64_t>::max(), "16.0 EB"}},
                       &FormatByteSize);
  EXPECT_EQ(FormatFixed(1.005, 10, 2), "      1.00");
  EXPECT_EQ(FormatFixed(std::numeric_limits<double>::max(), 0, 2).size(), 312U);
}

TEST(TextsTest, CutsReplacesSplitsAndJoins) {
  EXPECT_EQ(Clipped("0123456789", 10), "0123456789");
  EXPECT_EQ(Clipped("0123456789ab", 11), "01234\n... 2 bytes left out ...\n789ab");
  EXPECT_EQ(ReplaceAll("abab", "ab", "abab"), "abababab");
  EXPECT_EQ(ReplaceAll("abc", "", "x"), "abc");
  EXPECT_THAT(Split("a,,b,", ','), ElementsAre("a", "", "b", ""));
  EXPECT_EQ(JoinPath("/a/", "/b"), "/a/b");
  EXPECT_EQ(FileNameOf("/a/b.log"), "b.log");
  EXPECT_EQ(ToUpper("az\xC3\xBC{`"), "AZ\xC3\xBC{`");
}

}  // namespace
}  // namespace guardian
