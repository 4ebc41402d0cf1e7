// UUID creation and the text form.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "platform/Uuid.h"

namespace qbrix::platform {
namespace {

constexpr GUID kKnown = {
    0x6D414F84, 0xC6E9, 0x4E01, {0xAD, 0x6F, 0xCB, 0x53, 0x98, 0xA9, 0x6E, 0xDB}};

class UuidTest : public ::testing::Test {
  protected:
    ~UuidTest() override { ResetUuidCreateFault(); }
};

TEST_F(UuidTest, TextFormIsLowerCase8_4_4_4_12WithoutBraces) {
    std::string text;
    ASSERT_EQ(RPC_S_OK, UuidToStringA(&kKnown, &text));
    EXPECT_EQ("6d414f84-c6e9-4e01-ad6f-cb5398a96edb", text);
    ASSERT_EQ(RPC_S_OK, UuidToStringA(nullptr, &text));
    EXPECT_EQ("00000000-0000-0000-0000-000000000000", text);
}

TEST_F(UuidTest, ParsesEitherCaseAndRoundTrips) {
    GUID parsed{};
    ASSERT_EQ(RPC_S_OK, UuidFromStringA("6D414F84-C6E9-4E01-AD6F-CB5398A96EDB", &parsed));
    EXPECT_EQ(kKnown, parsed);
    for (int i = 0; i < 20; ++i) {
        GUID created{};
        ASSERT_EQ(RPC_S_OK, UuidCreate(&created));
        std::string text;
        UuidToStringA(&created, &text);
        GUID back{};
        ASSERT_EQ(RPC_S_OK, UuidFromStringA(text, &back)) << text;
        EXPECT_EQ(created, back);
    }
}

TEST_F(UuidTest, RejectsEverythingButTheExactForm) {
    const char* const bad[] = {
        "{6d414f84-c6e9-4e01-ad6f-cb5398a96edb}",  // braces
        "6d414f84-c6e9-4e01-ad6f-cb5398a96ed",     // short
        "6d414f84-c6e9-4e01-ad6f-cb5398a96edb0",   // long
        "6d414f84c-6e9-4e01-ad6f-cb5398a96edb",    // hyphen misplaced
        "6d414f84-c6e9-4e01-ad6fcb5398a96edb-",    // hyphen of the last group moved
        "6d414f84-c6e9-4e01-ad6f-cb5398a96edg",    // not hexadecimal
        "",
    };
    for (const char* text : bad) {
        GUID untouched = kKnown;
        EXPECT_EQ(RPC_S_INVALID_STRING_UUID, UuidFromStringA(text, &untouched)) << text;
        EXPECT_EQ(kKnown, untouched) << text;
    }
}

TEST_F(UuidTest, CreatesDistinctVersion4Identifiers) {
    std::set<std::string> seen;
    for (int i = 0; i < 64; ++i) {
        GUID created{};
        ASSERT_EQ(RPC_S_OK, UuidCreate(&created));
        EXPECT_EQ(0x4000, created.Data3 & 0xF000);
        EXPECT_EQ(0x80, created.Data4[0] & 0xC0);
        std::string text;
        UuidToStringA(&created, &text);
        seen.insert(text);
    }
    EXPECT_EQ(64u, seen.size());
}

TEST_F(UuidTest, FaultHookMakesCreationFail) {
    int calls = 0;
    g_uuidCreateFault = [&calls] { return ++calls == 2 ? RPC_S_UUID_NO_ADDRESS : RPC_S_OK; };
    GUID created{};
    EXPECT_EQ(RPC_S_OK, UuidCreate(&created));
    EXPECT_EQ(RPC_S_UUID_NO_ADDRESS, UuidCreate(&created));
    EXPECT_EQ(RPC_S_OK, UuidCreate(&created));
}

}  // namespace
}  // namespace qbrix::platform
