#include "storage/archive.h"

#include <iterator>

#include "utils/littleendian.h"
#include "utils/text.h"

namespace {

constexpr std::string_view kWideMark = "\xFF\xFE\xFF";

// A length field's value that says a longer field follows.
constexpr std::uint8_t kLonger8 = 0xFF;
constexpr std::uint16_t kLonger16 = 0xFFFF;
// Not a length: these 16 bits are the mark's.
constexpr std::uint16_t kMark16 = 0xFFFE;

template <typename Unsigned>
void append(std::string& bytes, Unsigned value) {
    std::uint8_t number[sizeof(Unsigned)];
    littleendian::put(number, value);
    bytes.append(std::begin(number), std::end(number));
}

template <typename Unsigned>
Unsigned numberAt(const char* bytes) {
    return littleendian::get<Unsigned>(reinterpret_cast<const std::uint8_t*>(bytes));
}

}  // namespace

void ArchiveWriter::writeString(std::wstring_view value) {
    const std::u16string units = text::toUtf16(value);
    const auto length = static_cast<std::uint32_t>(units.size());
    bytes_ += kWideMark;
    if (length < kLonger8) {
        append(bytes_, static_cast<std::uint8_t>(length));
    } else if (length < kMark16) {
        append(bytes_, kLonger8);
        append(bytes_, static_cast<std::uint16_t>(length));
    } else {
        append(bytes_, kLonger8);
        append(bytes_, kLonger16);
        append(bytes_, length);
    }
    for (const char16_t unit : units)
        append(bytes_, static_cast<std::uint16_t>(unit));
}

void ArchiveWriter::writeUint32(std::uint32_t value) {
    append(bytes_, value);
}

void ArchiveReader::readString(std::wstring& value) {
    const bool wide = rest_.starts_with(kWideMark);
    if (wide)
        rest_.remove_prefix(kWideMark.size());
    std::uint32_t length = takeNumber<std::uint8_t>();
    if (length == kLonger8) {
        length = takeNumber<std::uint16_t>();
        failed_ = failed_ || length == kMark16;
        if (length == kLonger16)
            length = takeNumber<std::uint32_t>();
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
    for (std::size_t i = 0; i < characters.size(); i += 2)
        units.push_back(numberAt<std::uint16_t>(characters.data() + i));
    value = text::fromUtf16(units);
}

void ArchiveReader::readUint32(std::uint32_t& value) {
    const auto number = takeNumber<std::uint32_t>();
    if (!failed_)
        value = number;
}

// 0 once the archive has failed.
template <typename Unsigned>
Unsigned ArchiveReader::takeNumber() {
    const std::string_view bytes = takeBytes(sizeof(Unsigned));
    return failed_ ? Unsigned{0} : numberAt<Unsigned>(bytes.data());
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
