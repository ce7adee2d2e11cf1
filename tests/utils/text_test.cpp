#include "utils/text.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

using namespace std::string_literals;

TEST(Text, Utf8AndBack) {
    // One character at each end of every length.
    const std::wstring wide = L"\0\x7F\u0080\u07FF\u0800\uD7FF\uE000\uFFFF\U00010000\U0010FFFF"s;
    const std::string narrow =
        "\0\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF"
        "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"s;
    EXPECT_EQ(text::narrow(wide), narrow);
    EXPECT_EQ(text::widen(narrow), wide);
}

TEST(Text, EveryByteThatIsNoUtf8ShowsAsOneReplacement) {
    const auto replaced = [](std::size_t count) { return std::wstring(count, L'\uFFFD'); };
    for (const std::string& bytes : {
             "\x80"s, "\xFF"s, "\xC0\x80"s, "\xC1\xBF"s, "\xE0\x9F\xBF"s,
             "\xF0\x8F\xBF\xBF"s,                       // longer than needed
             "\xED\xA0\x80"s, "\xED\xBF\xBF"s,          // surrogates
             "\xF4\x90\x80\x80"s, "\xF5\x80\x80\x80"s,  // beyond the last
             "\xC2"s, "\xE4\xB8"s, "\xF0\x9F\x98"s,     // cut off
         }) {
        SCOPED_TRACE(testing::PrintToString(bytes));
        EXPECT_EQ(text::widen("<" + bytes + ">"), L"<" + replaced(bytes.size()) + L">");
        EXPECT_EQ(text::widen(bytes), replaced(bytes.size()));
    }
    // A character right behind a broken one is not lost.
    EXPECT_EQ(text::widen("\xE4\xE4\xB8\xAD"), L"\uFFFD\u4E2D");
}

TEST(Text, Utf16UsesPairsAndReplacesHalves) {
    EXPECT_EQ(text::toUtf16(L"a\u4E2D\U00010000\U0010FFFF"), u"a\u4E2D\xD800\xDC00\xDBFF\xDFFF");
    EXPECT_EQ(text::fromUtf16(u"a\u4E2D\xD800\xDC00\xDBFF\xDFFF"), L"a\u4E2D\U00010000\U0010FFFF");
    const char16_t halves[] = {0xD83D, u'x', 0xDE00, 0xD83D, 0xE000, 0xD83D};
    EXPECT_EQ(text::fromUtf16({halves, 6}), L"\uFFFDx\uFFFD\uFFFD\uE000\uFFFD");
}

TEST(Text, WhatIsNoCodePointIsReplaced) {
    const std::wstring wide = {static_cast<wchar_t>(0xD800), L'x', static_cast<wchar_t>(0x110000)};
    EXPECT_EQ(text::narrow(wide), "\xEF\xBF\xBDx\xEF\xBF\xBD");
    EXPECT_EQ(text::toUtf16(wide), u"\uFFFDx\uFFFD");
}

TEST(Text, ReadsTheHexadecimalNumberThatAnOperatorTyped) {
    struct Row {
        const char* typed;
        std::int32_t number;
    };
    for (const Row& row : {
             Row{"0x7ff004", 0x7FF004},
             Row{" \t\r\n0X1f", 0x1F},
             Row{"-0x10", -0x10},
             Row{"12G4", 0x12},
             Row{"0x", 0},
             Row{"", 0},
             // Everything beyond 32 bits, and beyond 64, sticks to the limit.
             Row{"7FFFFFFF", INT32_MAX},
             Row{"123456789ABCDEF012345", INT32_MAX},
             Row{"-123456789ABCDEF012345", INT32_MIN},
         })
        EXPECT_EQ(text::parseHex(row.typed), row.number) << '"' << row.typed << '"';
    EXPECT_EQ(text::parseHex("1\0002"s), 1);
}
