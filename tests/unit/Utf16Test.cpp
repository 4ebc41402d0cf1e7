// Conversion between narrow (UTF-8) texts and the UTF-16 texts of the socket catalog.
#include <gtest/gtest.h>

#include <string>

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

}  // namespace
}  // namespace qbrix::platform
