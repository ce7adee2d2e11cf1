#include "vorlan/burn/imagesource.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "utils/logutil.h"
#include "vorlan/burn/crc64.h"
#include "vorlan/burn/usb_protocol.h"

#define LOG_TAG "BurnAgent"

ImageSource::Result MemoryImage::read(std::uint8_t* buffer, std::uint32_t size,
                                      std::uint32_t& count) {
    count = std::min(size, size_ - position_);
    std::memcpy(buffer, data_ + position_, count);
    position_ += count;
    return Result::kOk;
}

FileImage::FileImage(std::FILE* file, const char* operation) : file_(file), operation_(operation) {
    if (std::fseek(file_, 0, SEEK_END) == 0)
        size_ = static_cast<std::uint32_t>(std::max(0L, std::ftell(file_)));
    rewind();
}

void FileImage::rewind() {
    std::rewind(file_);
}

ImageSource::Result FileImage::read(std::uint8_t* buffer, std::uint32_t size,
                                    std::uint32_t& count) {
    count = 0;
    while (count < size) {
        const std::uint32_t wanted = size - count;
        const auto got = static_cast<std::uint32_t>(std::fread(buffer + count, 1, wanted, file_));
        count += got;
        if (got == wanted || std::feof(file_) != 0)
            break;
        if (std::ferror(file_) != 0) {
            LOG_E("\n%s: error(%08Xh) occurs in reading image file! readBytes = %u\n", operation_,
                  static_cast<unsigned>(errno), count);
            return Result::kError;
        }
        std::printf("\n%s: no end & no error, but read %u (< %u) bytes!\n", operation_, got,
                    wanted);
    }
    return Result::kOk;
}

bool imageCrc64(ImageSource& image, std::uint64_t& crc) {
    std::array<std::uint8_t, kChunkSize> buffer;
    crc = 0;
    image.rewind();
    for (std::uint32_t left = image.size(); left > 0;) {
        const std::uint32_t wanted = std::min(left, kChunkSize);
        std::uint32_t count = 0;
        if (image.read(buffer.data(), wanted, count) != ImageSource::Result::kOk)
            return false;
        crc = crc64(crc, buffer.data(), count);
        if (count < wanted)
            break;
        left -= count;
    }
    return true;
}
