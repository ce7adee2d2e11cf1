#include "utils/text.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>

namespace text {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

constexpr bool isSurrogate(char32_t c) {
    return c >= 0xD800 && c <= 0xDFFF;
}
constexpr bool isCodePoint(char32_t c) {
    return c <= 0x10FFFF && !isSurrogate(c);
}

// Takes one code point off the front of UTF-16 code units, which may be wchar_t or char16_t.
template <typename Char>
char32_t takeUtf16(std::basic_string_view<Char>& units) {
    const auto first = static_cast<char32_t>(units[0]);
    if (first >= 0xD800 && first <= 0xDBFF && units.size() > 1) {
        const auto second = static_cast<char32_t>(units[1]);
        if (second >= 0xDC00 && second <= 0xDFFF) {
            units.remove_prefix(2);
            return 0x10000 + ((first - 0xD800) << 10) + (second - 0xDC00);
        }
    }
    units.remove_prefix(1);
    return isSurrogate(first) ? kReplacement : first;
}

template <typename Char>
void appendUtf16(std::basic_string<Char>& out, char32_t c) {
    if (c < 0x10000) {
        out.push_back(static_cast<Char>(c));
    } else {
        out.push_back(static_cast<Char>(0xD800 + ((c - 0x10000) >> 10)));
        out.push_back(static_cast<Char>(0xDC00 + ((c - 0x10000) & 0x3FF)));
    }
}

char32_t takeWide(std::wstring_view& wide) {
    if constexpr (sizeof(wchar_t) == 2)
        return takeUtf16(wide);
    const auto c = static_cast<char32_t>(wide[0]);
    wide.remove_prefix(1);
    return isCodePoint(c) ? c : kReplacement;
}

void appendWide(std::wstring& out, char32_t c) {
    if constexpr (sizeof(wchar_t) == 2)
        appendUtf16(out, c);
    else
        out.push_back(static_cast<wchar_t>(c));
}

// One code point off the front; nothing, and one byte less, if it is not well-formed.
std::optional<char32_t> takeUtf8(std::string_view& bytes) {
    const auto byteAt = [&](std::size_t i) { return static_cast<std::uint8_t>(bytes[i]); };
    const std::uint8_t lead = byteAt(0);
    std::size_t length = 1;
    char32_t c = lead;
    char32_t smallest = 0;
    if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        c = lead & 0x07U;
        smallest = 0x10000;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        c = lead & 0x0FU;
        smallest = 0x800;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        c = lead & 0x1FU;
        smallest = 0x80;
    } else if (lead >= 0x80) {
        bytes.remove_prefix(1);
        return std::nullopt;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if (i >= bytes.size() || (byteAt(i) & 0xC0U) != 0x80) {
            bytes.remove_prefix(1);
            return std::nullopt;
        }
        c = (c << 6) | (byteAt(i) & 0x3FU);
    }
    if (c < smallest || !isCodePoint(c)) {
        bytes.remove_prefix(1);
        return std::nullopt;
    }
    bytes.remove_prefix(length);
    return c;
}

void appendUtf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out.push_back(static_cast<char>(c));
        return;
    }
    if (c < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (c >> 6)));
    } else {
        if (c < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (c >> 12)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (c >> 18)));
            out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
        }
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    }
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
}

}  // namespace

std::wstring widen(std::string_view bytes) {
    std::wstring out;
    out.reserve(bytes.size());
    while (!bytes.empty())
        appendWide(out, takeUtf8(bytes).value_or(kReplacement));
    return out;
}

bool isUtf8(std::string_view bytes) {
    while (!bytes.empty()) {
        if (!takeUtf8(bytes))
            return false;
    }
    return true;
}

std::string narrow(std::wstring_view wide) {
    std::string out;
    out.reserve(wide.size());
    while (!wide.empty())
        appendUtf8(out, takeWide(wide));
    return out;
}

std::u16string toUtf16(std::wstring_view wide) {
    std::u16string out;
    out.reserve(wide.size());
    while (!wide.empty())
        appendUtf16(out, takeWide(wide));
    return out;
}

std::wstring fromUtf16(std::u16string_view units) {
    std::wstring out;
    out.reserve(units.size());
    while (!units.empty())
        appendWide(out, takeUtf16(units));
    return out;
}

std::int32_t parseHex(const std::string& text) {
    using Limits = std::numeric_limits<std::int32_t>;
    const long long number = std::strtoll(text.c_str(), nullptr, 16);
    return static_cast<std::int32_t>(std::clamp<long long>(number, Limits::min(), Limits::max()));
}

}  // namespace text
