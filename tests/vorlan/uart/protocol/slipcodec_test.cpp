#include "vorlan/uart/protocol/slipcodec.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using Result = SlipCodec::Result;
using namespace std::string_literals;

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
        Frame expected;
    };
    const std::string longest(63, 'x');
    const std::vector<Case> cases{
        {"nothing", "", {Result::kIncomplete, ""}},
        {"a frame",
         "\xC0"
         "abc\xC0",
         {Result::kComplete, "abc"}},
        {"noise first",
         "\x01\xDBn\xC0"
         "abc\xC0",
         {Result::kComplete, "abc"}},
        {"noise behind",
         "\xC0"
         "abc\xC0"
         "noise",
         {Result::kComplete, "abc"}},
        {"two frames",
         "\xC0"
         "abc\xC0\xC0"
         "def\xC0",
         {Result::kComplete, "abc"}},
        {"escapes", "\xC0\xDB\xDC\xDB\xDD\xC0", {Result::kComplete, "\xC0\xDB"}},
        {"an empty frame", "\xC0\xC0", {Result::kComplete, ""}},
        {"bad escape",
         "\xC0"
         "a\xDB"
         "b\xC0",
         {Result::kBadEscape, ""}},
        {"end inside an escape",
         "\xC0"
         "a\xDB\xC0",
         {Result::kComplete, "a"}},
        {"63 bytes", "\xC0" + longest + "\xC0", {Result::kComplete, longest}},
        {"64 bytes", "\xC0" + longest + "x\xC0", {Result::kTooLong, ""}},
        {"64 bytes by an escape", "\xC0" + longest + "\xDB\xDC\xC0", {Result::kTooLong, ""}},
        {"no end",
         "\xC0"
         "abc",
         {Result::kIncomplete, ""}},
    };
    for (const Case& item : cases) {
        SlipCodec codec;
        EXPECT_EQ(decode(codec, item.raw), item.expected) << item.what;
        if (item.expected.first == Result::kIncomplete)
            continue;
        // Whatever the end was, the next frame starts from nothing.
        EXPECT_EQ(decode(codec, "\xC0next\xC0"), Frame(Result::kComplete, "next")) << item.what;

        // The same by single bytes.
        SlipCodec slow;
        Frame frame(Result::kIncomplete, "");
        for (std::size_t i = 0; i < item.raw.size() && frame.first == Result::kIncomplete; ++i)
            frame = decode(slow, item.raw.substr(i, 1));
        EXPECT_EQ(frame, item.expected) << item.what;
    }
}

TEST(SlipCodec, AFrameMayBeCompletedByALaterCall) {
    SlipCodec codec;
    const std::uint8_t* input = nullptr;
    std::size_t length = 0;
    EXPECT_EQ(decode(codec,
                     "\xC0"
                     "ab"s)
                  .first,
              Result::kIncomplete);
    EXPECT_EQ(codec.slip_decode(nullptr, -1, input, length), Result::kIncomplete);
    EXPECT_EQ(decode(codec, "c\xDB").first, Result::kIncomplete);
    // What was meant as the next frame's start ends this one.
    EXPECT_EQ(decode(codec, "\xC0next\xC0"), Frame(Result::kComplete, "abc"));
    EXPECT_EQ(decode(codec, "next\xC0").first, Result::kIncomplete);
    EXPECT_EQ(decode(codec, "\xC0"), Frame(Result::kComplete, ""));
    // An empty frame leaves the buffer as it was.
    EXPECT_EQ(codec.slip_decode(bytesOf("\xC0\xC0"), 2, input, length), Result::kComplete);
    EXPECT_EQ(length, 0U);
    EXPECT_EQ(std::string(input, input + 3), "abc");
}
