// Conversion between narrow (UTF-8) texts and the UTF-16 texts of the socket catalog, and
// between the program's code page and Unicode.
#include <gtest/gtest.h>

#include <string>

#include "platform/CodePage.h"
#include "platform/Utf16.h"

namespace qbrix::platform {
namespace {

TEST(Utf16Test, RoundTripsTextOutsideAscii) {
    const std::string text = "Tcpip [TCP/IP] \xC3\xA9\xE2\x82\xAC \xF0\x9F\x98\x80";  // é € 😀
    std::u16string wide = Utf8ToUtf16(text);
    EXPECT_EQ(u"Tcpip [TCP/IP] \u00E9\u20AC \U0001F600", wide);
    EXPECT_EQ(text, Utf16ToUtf8(wide));
}

TEST(Utf16Test, InvalidSequencesBecomeReplacementCharacters) {
    EXPECT_EQ(
        "a\xEF\xBF\xBD"
        "b",
        Utf16ToUtf8(std::u16string{u'a', 0xD800, u'b'}));
    EXPECT_EQ("\xEF\xBF\xBD", Utf16ToUtf8(std::u16string{0xDC00}));
    EXPECT_EQ(u"a\uFFFDb", Utf8ToUtf16("a\xFF"
                                       "b"));
    EXPECT_EQ(u"\uFFFD", Utf8ToUtf16("\xE2\x82"));      // cut short at the end
    EXPECT_EQ(u"\uFFFD", Utf8ToUtf16("\xC0\xAF"));      // over-long form
    EXPECT_EQ(u"\uFFFD", Utf8ToUtf16("\xED\xA0\x80"));  // encoded surrogate
}

TEST(Utf16Test, BoundedReadStopsAtTheTerminatorOrTheWidth) {
    const char16_t terminated[4] = {u'a', u'b', 0, u'c'};
    EXPECT_EQ(u"ab", BoundedUtf16(terminated, 4));
    const char16_t full[3] = {u'x', u'y', u'z'};
    EXPECT_EQ(u"xyz", BoundedUtf16(full, 3));
}

struct CodePageCase {
    unsigned char byte;
    char32_t character;
};

class CodePageTest : public ::testing::TestWithParam<CodePageCase> {};

TEST_P(CodePageTest, ByteAndCharacterMapBothWays) {
    const CodePageCase& c = GetParam();
    EXPECT_EQ(AnsiCharToUnicode(c.byte), c.character);
    EXPECT_EQ(static_cast<unsigned char>(UnicodeToAnsiChar(c.character)), c.byte);
}

// windows-1252, its five unassigned bytes standing for the control characters of their number.
INSTANTIATE_TEST_SUITE_P(Windows1252, CodePageTest,
                         ::testing::Values(CodePageCase{0x41, U'A'}, CodePageCase{0x80, 0x20AC},
                                           CodePageCase{0x81, 0x81}, CodePageCase{0x8D, 0x8D},
                                           CodePageCase{0x8F, 0x8F}, CodePageCase{0x90, 0x90},
                                           CodePageCase{0x9D, 0x9D}, CodePageCase{0x9F, 0x178},
                                           CodePageCase{0xA0, 0xA0}, CodePageCase{0xE9, 0xE9},
                                           CodePageCase{0xFF, 0xFF}));

TEST(CodePageTextTest, EveryByteRoundTripsAndOtherCharactersBecomeQuestionMarks) {
    std::string all;
    for (int byte = 1; byte < 256; ++byte) {
        all.push_back(static_cast<char>(byte));
    }
    EXPECT_EQ(Utf16ToAnsi(AnsiToUtf16(all)), all);
    EXPECT_EQ(Utf8ToAnsi(AnsiToUtf8(all)), all);
    EXPECT_EQ(AnsiToUtf8("\xE9\x80"), "\xC3\xA9\xE2\x82\xAC");
    // Outside the code page: U+0080 (its byte means the euro sign), U+0100, a surrogate pair.
    EXPECT_EQ(Utf16ToAnsi(u"\u0080\u0100\U0001F600x"), "???x");
    EXPECT_EQ(Utf8ToAnsi("\xC4\x80\xFF"), "??");
}

}  // namespace
}  // namespace qbrix::platform
