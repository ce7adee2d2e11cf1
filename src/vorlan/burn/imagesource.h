// Where the bytes of a flash write come from: an image file, or memory for a serial number.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>

class ImageSource {
  public:
    enum class Result {
        kOk,          // the buffer is full, or holds all that is left
        kError,       // the file cannot be read
        kIncomplete,  // neither end nor error: there is more to come
    };

    virtual std::uint32_t size() const = 0;
    // Back to the first byte.
    virtual void rewind() = 0;
    // Puts the next bytes into the buffer; `count` tells how many.
    virtual Result read(std::uint8_t* buffer, std::uint32_t size, std::uint32_t& count) = 0;

  protected:
    ~ImageSource() = default;
};

class MemoryImage final : public ImageSource {
  public:
    // The bytes stay the caller's and must outlive this.
    MemoryImage(const std::uint8_t* data, std::uint32_t size) : data_(data), size_(size) {}

    std::uint32_t size() const override { return size_; }
    void rewind() override { position_ = 0; }
    Result read(std::uint8_t* buffer, std::uint32_t size, std::uint32_t& count) override;

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
    void rewind() override;
    Result read(std::uint8_t* buffer, std::uint32_t size, std::uint32_t& count) override;

  private:
    std::FILE* file_;
    std::optional<std::uint32_t> size_;
};

// CRC-64 of the whole image, taken 4096 bytes at a time from its start. False if it cannot be read
// or the calling thread is interrupted.
bool imageCrc64(ImageSource& image, std::uint64_t& crc);
