// Where the bytes of a flash write come from: an image file, or memory for a serial number.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>

#include "platform/file.h"

class ImageSource {
  public:
    enum class Result {
        kOk,          // all that was wanted, or all that is left
        kError,       // the file cannot be read any further
        kIncomplete,  // neither end nor error: asked again, it reads on
    };
    struct Chunk {
        Result result;
        const std::uint8_t* bytes;  // valid until the next call
        std::uint32_t count;
        int error;  // errno of kError
    };

    virtual std::uint32_t size() const = 0;
    // Of a file, as it is now.
    virtual std::optional<platform::File::Stamp> stamp() const { return std::nullopt; }
    // Back to the first byte.
    virtual void rewind() = 0;
    // The next bytes, which are not taken again unless the result is kIncomplete. `wanted` is at
    // most kChunkSize.
    virtual Chunk next(std::uint32_t wanted) = 0;

  protected:
    ~ImageSource() = default;
};

class MemoryImage final : public ImageSource {
  public:
    // The bytes stay the caller's and must outlive this.
    MemoryImage(const std::uint8_t* data, std::uint32_t size) : data_(data), size_(size) {}

    std::uint32_t size() const override { return size_; }
    void rewind() override { position_ = 0; }
    Chunk next(std::uint32_t wanted) override;

  private:
    const std::uint8_t* data_;
    std::uint32_t size_;
    std::uint32_t position_ = 0;
};

class FileImage final : public ImageSource {
  public:
    // The file is open for binary reading, stays the caller's and must outlive this. Its size is
    // taken now.
    explicit FileImage(std::FILE* file);

    // Whether the file has a size that an image can have.
    bool isUsable() const { return size_.has_value(); }
    std::uint32_t size() const override { return size_.value_or(0); }
    std::optional<platform::File::Stamp> stamp() const override { return platform::stampOf(file_); }
    void rewind() override;
    Chunk next(std::uint32_t wanted) override;

  private:
    // Fetched in chunks, 16 images at once would keep the disk too busy.
    static constexpr std::size_t kReadAhead = 0x10000;  // bytes

    std::FILE* file_;
    std::optional<std::uint32_t> size_;
    std::array<std::uint8_t, kReadAhead> block_;  // of the file
    std::size_t begin_ = 0;                       // of what has not been taken
    std::size_t end_ = 0;
};

// CRC-64 of the whole image, taken 4096 bytes at a time from its start. False if it cannot be read
// or the calling thread is interrupted. That of a file is remembered, so that not every device has
// it read for this; a file that anybody has written to since is read again. Any thread.
bool imageCrc64(ImageSource& image, std::uint64_t& crc);
