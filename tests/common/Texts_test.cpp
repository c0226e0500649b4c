#include "common/Texts.h"

#include <gmock/gmock.h>

#include <limits>

namespace guardian {
namespace {

using testing::ElementsAre;

struct TTextCase {
  std::string From;
  std::string To;
};

template <typename TFunction>
void Check(const std::vector<TTextCase>& cases, TFunction&& function) {
  for (const TTextCase& each : cases) EXPECT_EQ(function(each.From), each.To) << each.From;
}

TEST(TextsTest, EscapesForHtml) {
  Check({{"", ""},
         {"plain \xC3\xBC '", "plain \xC3\xBC '"},
         {"<a href=\"x\">&amp;", "&lt;a href=&quot;x&quot;&gt;&amp;amp;"}},
        &HtmlEscape);
}

TEST(TextsTest, DecodesHtmlOnce) {
  Check({{"&amp;&lt;&gt;&quot;&apos;", "&<>\"'"},
         {"&amp;lt;", "&lt;"},
         {"&#65;&#x42;&#X43;", "ABC"},
         {"&#127;&#128;&#x7FF;&#x800;&#xFFFF;&#x10000;&#x10FFFF;",
          "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
         {"&#x110000;&#xD800;&#xDFFF;&#0;&#99999999999;",
          "&#x110000;&#xD800;&#xDFFF;&#0;&#99999999999;"},
         {"&unknown;&;&#;&#x;&#-5;&#6 5;&amp", "&unknown;&;&#;&#x;&#-5;&#6 5;&amp"},
         {"a & b; c&", "a & b; c&"}},
        &HtmlDecode);
}

TEST(TextsTest, EncodesAndDecodesLinks) {
  std::string everyByte;
  for (int byte = 0; byte < 256; ++byte) everyByte.push_back(static_cast<char>(byte));
  EXPECT_EQ(LinkDecode(LinkEncode(everyByte)), everyByte);
  Check({{"aZ09-._~", "aZ09-._~"}, {"a/b c%\xFF", "a%2Fb%20c%25%FF"}}, &LinkEncode);
  Check({{"%41%2f%2F", "A//"}, {"%4", "%4"}, {"%", "%"}, {"%G1%4G%%41+", "%G1%4G%A+"}},
        &LinkDecode);
}

TEST(TextsTest, QuotesArgumentsThatNeedIt) {
  Check({{"", "\"\""},
         {"plain\\path", "plain\\path"},
         {"two words", "\"two words\""},
         {"a\tb", "\"a\tb\""},
         {"say \"hi\\\"", "\"say \\\"hi\\\\\\\"\""},
         {"it's", "\"it's\""}},
        &QuoteArgument);
}

TEST(TextsTest, MakesFileNamesSafe) {
  Check({{"a/b\\c:d*e?f<g>h|i\"j", "a_b_c_d_e_f_g_h_i_j"},
         {"x\n\x1F\x7Fy", "x___y"},
         {" ..\xC3\xBC'$", " ..\xC3\xBC'$"}},
        &SafeFileName);
}

TEST(TextsTest, FormatsNumbers) {
  constexpr std::uint64_t kMega = 1024 * 1024;
  const std::vector<std::pair<std::uint64_t, std::string>> sizes = {
      {0, "0 Bytes"},          {1023, "1023 Bytes"},       {1024, "1.0 KB"},
      {1536, "1.5 KB"},        {kMega - 100, "1023.9 KB"}, {kMega - 1, "1.0 MB"},
      {3072 * kMega, "3.0 GB"}};
  for (const auto& [bytes, text] : sizes) EXPECT_EQ(FormatByteSize(bytes), text);
  EXPECT_EQ(FormatByteSize(std::numeric_limits<std::uint64_t>::max()), "16.0 EB");
  EXPECT_EQ(FormatFixed(1.005, 10, 2), "      1.00");
  EXPECT_EQ(FormatFixed(-2.5, 0, 1), "-2.5");
  EXPECT_EQ(FormatFixed(std::numeric_limits<double>::max(), 0, 2).size(), 312U);
}

TEST(TextsTest, CutsLongTextsInTheMiddle) {
  EXPECT_EQ(Clipped("0123456789", 10), "0123456789");
  EXPECT_EQ(Clipped("0123456789a", 10), "01234\n... 1 bytes left out ...\n6789a");
  EXPECT_EQ(Clipped("0123456789ab", 5), "01\n... 8 bytes left out ...\nab");
}

TEST(TextsTest, ReplacesLeftToRightWithoutSearchingAgain) {
  EXPECT_EQ(ReplaceAll("aaa", "aa", "a"), "aa");
  EXPECT_EQ(ReplaceAll("abab", "ab", "abab"), "abababab");
  EXPECT_EQ(ReplaceAll("abc", "", "x"), "abc");
  EXPECT_EQ(ReplaceAll("xbx", "x", ""), "b");
}

TEST(TextsTest, SplitsAndJoins) {
  EXPECT_THAT(Split("", ','), ElementsAre(""));
  EXPECT_THAT(Split("a,,b,", ','), ElementsAre("a", "", "b", ""));
  EXPECT_EQ(JoinPath("/a", "b"), "/a/b");
  EXPECT_EQ(JoinPath("/a/", "/b"), "/a/b");
  EXPECT_EQ(JoinPath("/", "b"), "/b");
  EXPECT_EQ(FileNameOf("/a/b.log"), "b.log");
  EXPECT_EQ(FileNameOf("b.log"), "b.log");
  EXPECT_EQ(FileNameOf("/a/"), "");
  EXPECT_EQ(ToUpper("az\xC3\xBC{`"), "AZ\xC3\xBC{`");
}

}  // namespace
}  // namespace guardian
