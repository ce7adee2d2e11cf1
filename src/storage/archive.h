// The byte form of the program's state files: 32-bit little-endian values and strings, one behind
// the other, with no header. A string is the mark FF FE FF, its length in 16-bit characters, and
// the characters in UTF-16LE. The length is one byte below 255, FF and 16 bits below 65,534, and
// FF FF FF and 32 bits from there on.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Collects the bytes of a file.
class ArchiveWriter {
  public:
    void writeString(std::wstring_view value);
    void writeUint32(std::uint32_t value);

    const std::string& bytes() const { return bytes_; }

  private:
    std::string bytes_;
};

// Reads values off the front of a file's bytes, which the caller keeps. A value that is damaged or
// cut off fails the archive for good: it and all later ones leave their targets as they are.
class ArchiveReader {
  public:
    explicit ArchiveReader(std::string_view bytes) : rest_(bytes) {}

    // Accepts a string without the mark too; its length then counts bytes, which are widened.
    void readString(std::wstring& value);
    void readUint32(std::uint32_t& value);

    bool failed() const { return failed_; }

  private:
    template <typename Unsigned>
    Unsigned takeNumber();
    std::string_view takeBytes(std::uint64_t size);

    std::string_view rest_;
    bool failed_ = false;
};
