// Conversion between the wide texts of the pages and the bytes of files, wires and devices, which
// are UTF-8. Wide strings hold one code point in each character where wchar_t has 32 bits, and
// UTF-16 code units where it has 16.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace text {

// Every byte that belongs to no well-formed UTF-8 sequence becomes U+FFFD.
std::wstring widen(std::string_view bytes);

// Whether all bytes belong to well-formed UTF-8 sequences.
bool isUtf8(std::string_view bytes);

// Characters that are no code points become U+FFFD.
std::string narrow(std::wstring_view wide);

// For files that hold UTF-16. Half a surrogate pair becomes U+FFFD in both directions.
std::u16string toUtf16(std::wstring_view wide);
std::wstring fromUtf16(std::u16string_view units);

// The hexadecimal number at the start of what somebody typed: blanks, a sign and "0x" may come
// first, and the first character that is no digit ends it. 0 if there is no number; a number that
// does not fit becomes the nearest one that does.
std::int32_t parseHex(const std::string& text);

}  // namespace text
