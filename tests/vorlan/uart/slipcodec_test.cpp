#include "vorlan/uart/slipcodec.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using Result = SlipCodec::Result;

namespace {

const std::uint8_t* bytesOf(const std::string& text) {
    return reinterpret_cast<const std::uint8_t*>(text.data());
}

// The frame, or "overflow".
std::string encode(SlipCodec& codec, const std::string& plain) {
    const std::uint8_t* output = nullptr;
    std::size_t length = 0;
    const int taken = codec.slip_encode(bytesOf(plain), plain.size(), output, length);
    if (taken < 0)
        return "overflow";
    EXPECT_EQ(taken, static_cast<int>(plain.size()));
    return {output, output + length};
}

// What came of one call, with the frame if there is one.
std::pair<Result, std::string> decode(SlipCodec& codec, const std::string& raw) {
    const std::uint8_t* input = nullptr;
    std::size_t length = 0;
    const Result result =
        codec.slip_decode(bytesOf(raw), static_cast<int>(raw.size()), input, length);
    if (result != Result::kComplete)
        return {result, ""};
    return {result, {input, input + length}};
}

using Frame = std::pair<Result, std::string>;

// Bytes of the wire, with signs for those that have a meaning.
std::string wire(std::string text) {
    for (const auto& [sign, byte] :
         {std::pair('|', '\xC0'), {'^', '\xDB'}, {'<', '\xDC'}, {'>', '\xDD'}})
        std::replace(text.begin(), text.end(), sign, byte);
    return text;
}

}  // namespace

TEST(SlipCodec, EscapesWhatHasAMeaningWhereverItStands) {
    SlipCodec codec;
    EXPECT_EQ(encode(codec, ""), "\xC0\xC0");
    for (std::size_t length = 1; length <= 40; ++length) {
        for (std::size_t at = 0; at < length; ++at) {
            // Neighbours of the two bytes, which a hurried search could take for them.
            const std::string others(length, at % 2 == 0 ? '\xC1' : '\xDA');
            for (const auto& [byte, escaped] :
                 {std::pair("\xC0", "\xDB\xDC"), {"\xDB", "\xDB\xDD"}}) {
                std::string plain = others;
                std::string frame = others;
                EXPECT_EQ(encode(codec, plain.replace(at, 1, byte)),
                          frame.replace(at, 1, escaped).insert(0, 1, '\xC0').append("\xC0"));
            }
        }
    }
}

TEST(SlipCodec, StopsAtTheEndOfItsBuffer) {
    SlipCodec codec;
    EXPECT_EQ(encode(codec, std::string(10238, 'x')).size(), 10240U);
    EXPECT_EQ(encode(codec, std::string(10239, 'x')), "overflow");
    EXPECT_EQ(encode(codec, std::string(5119, '\xC0')).size(), 10240U);
    EXPECT_EQ(encode(codec, std::string(5120, '\xDB')), "overflow");
    EXPECT_EQ(encode(codec, "x" + std::string(5119, '\xDB')), "overflow");
    EXPECT_EQ(encode(codec, std::string(4120, '\xDB')).size(), 8242U);
}

TEST(SlipCodec, DecodesWhatALineDelivers) {
    struct Case {
        const char* what;
        std::string raw;
        Result result;
        std::string frame;
    };
    const std::string longest(63, 'x');
    const std::vector<Case> cases{
        {"nothing", "", Result::kIncomplete, ""},
        {"a frame", "|abc|", Result::kComplete, "abc"},
        {"noise first", "x^n|abc|", Result::kComplete, "abc"},
        {"noise behind", "|abc|noise", Result::kComplete, "abc"},
        {"two frames", "|abc||def|", Result::kComplete, "abc"},
        {"escapes", "|^<^>|", Result::kComplete, "|^"},
        {"an empty frame", "||", Result::kComplete, ""},
        {"bad escape", "|a^b|", Result::kBadEscape, ""},
        {"end inside an escape", "|a^|", Result::kComplete, "a"},
        {"63 bytes", "|" + longest + "|", Result::kComplete, longest},
        {"64 bytes", "|x" + longest + "|", Result::kTooLong, ""},
        {"64 bytes by an escape", "|" + longest + "^<|", Result::kTooLong, ""},
        {"no end", "|abc", Result::kIncomplete, ""},
    };
    for (const Case& item : cases) {
        const std::string raw = wire(item.raw);
        const Frame expected(item.result, wire(item.frame));
        SlipCodec codec;
        EXPECT_EQ(decode(codec, raw), expected) << item.what;
        // The same by single bytes.
        SlipCodec slow;
        Frame frame(Result::kIncomplete, "");
        for (std::size_t i = 0; i < raw.size() && frame.first == Result::kIncomplete; ++i)
            frame = decode(slow, raw.substr(i, 1));
        EXPECT_EQ(frame, expected) << item.what;
        // Whatever the end was, the next frame starts from nothing.
        if (item.result != Result::kIncomplete) {
            EXPECT_EQ(decode(codec, wire("|next|")), Frame(Result::kComplete, "next")) << item.what;
        }
    }
}

TEST(SlipCodec, AFrameMayBeCompletedByALaterCall) {
    SlipCodec codec;
    const std::uint8_t* input = nullptr;
    std::size_t length = 0;
    EXPECT_EQ(decode(codec, wire("|ab")).first, Result::kIncomplete);
    EXPECT_EQ(codec.slip_decode(nullptr, -1, input, length), Result::kIncomplete);
    EXPECT_EQ(decode(codec, wire("c^")).first, Result::kIncomplete);
    // What was meant as the next frame's start ends this one.
    EXPECT_EQ(decode(codec, wire("|next|")), Frame(Result::kComplete, "abc"));
    EXPECT_EQ(decode(codec, wire("next|")).first, Result::kIncomplete);
    EXPECT_EQ(decode(codec, wire("|")), Frame(Result::kComplete, ""));
}
