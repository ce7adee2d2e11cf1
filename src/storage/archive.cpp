#include "storage/archive.h"

#include "utils/text.h"

namespace {

constexpr std::string_view kWideMark = "\xFF\xFE\xFF";

// A length field's value that says a longer field follows.
constexpr std::uint32_t kLonger8 = 0xFF;
constexpr std::uint32_t kLonger16 = 0xFFFF;
// Not a length: these 16 bits are the mark's.
constexpr std::uint32_t kMark16 = 0xFFFE;

void appendNumber(std::string& bytes, std::uint32_t value, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i)
        bytes.push_back(static_cast<char>(value >> (8 * i)));
}

}  // namespace

void ArchiveWriter::writeString(std::wstring_view value) {
    const std::u16string units = text::toUtf16(value);
    const auto length = static_cast<std::uint32_t>(units.size());
    bytes_ += kWideMark;
    if (length < kLonger8) {
        appendNumber(bytes_, length, 1);
    } else if (length < kMark16) {
        appendNumber(bytes_, kLonger8, 1);
        appendNumber(bytes_, length, 2);
    } else {
        appendNumber(bytes_, kLonger8, 1);
        appendNumber(bytes_, kLonger16, 2);
        appendNumber(bytes_, length, 4);
    }
    for (const char16_t unit : units)
        appendNumber(bytes_, unit, 2);
}

void ArchiveWriter::writeUint32(std::uint32_t value) {
    appendNumber(bytes_, value, 4);
}

void ArchiveReader::readString(std::wstring& value) {
    const bool wide = rest_.starts_with(kWideMark);
    if (wide)
        rest_.remove_prefix(kWideMark.size());
    std::uint32_t length = takeNumber(1);
    if (length == kLonger8) {
        length = takeNumber(2);
        failed_ = failed_ || length == kMark16;
        if (length == kLonger16)
            length = takeNumber(4);
    }
    const std::string_view characters = takeBytes(std::uint64_t{length} * (wide ? 2 : 1));
    if (failed_)
        return;
    if (!wide) {
        value = text::widen(characters);
        return;
    }
    std::u16string units;
    units.reserve(length);
    for (std::size_t i = 0; i < characters.size(); i += 2) {
        const auto low = static_cast<std::uint8_t>(characters[i]);
        const auto high = static_cast<std::uint8_t>(characters[i + 1]);
        units.push_back(static_cast<char16_t>(low | high << 8));
    }
    value = text::fromUtf16(units);
}

void ArchiveReader::readUint32(std::uint32_t& value) {
    const std::uint32_t number = takeNumber(4);
    if (!failed_)
        value = number;
}

std::uint32_t ArchiveReader::takeNumber(std::size_t size) {
    std::uint32_t number = 0;
    const std::string_view bytes = takeBytes(size);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        number |= std::uint32_t{static_cast<std::uint8_t>(bytes[i])} << (8 * i);
    return number;
}

// Empty once the archive has failed.
std::string_view ArchiveReader::takeBytes(std::uint64_t size) {
    failed_ = failed_ || size > rest_.size();
    if (failed_)
        return {};
    const std::string_view bytes = rest_.substr(0, size);
    rest_.remove_prefix(bytes.size());
    return bytes;
}
