#include "vorlan/burn/imagesource.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "utils/fileutil.h"
#include "utils/interruption.h"
#include "vorlan/burn/crc64.h"
#include "vorlan/burn/usb_protocol.h"

ImageSource::Result MemoryImage::read(std::uint8_t* buffer, std::uint32_t size,
                                      std::uint32_t& count) {
    count = std::min(size, size_ - position_);
    std::memcpy(buffer, data_ + position_, count);
    position_ += count;
    return Result::kOk;
}

FileImage::FileImage(std::FILE* file) : file_(file), size_(fileutil::sizeOf(file)) {}

void FileImage::rewind() {
    std::rewind(file_);
}

ImageSource::Result FileImage::read(std::uint8_t* buffer, std::uint32_t size,
                                    std::uint32_t& count) {
    count = static_cast<std::uint32_t>(std::fread(buffer, 1, size, file_));
    if (count == size || std::feof(file_) != 0)
        return Result::kOk;
    return std::ferror(file_) != 0 ? Result::kError : Result::kIncomplete;
}

bool imageCrc64(ImageSource& image, std::uint64_t& crc) {
    std::array<std::uint8_t, kChunkSize> buffer;
    crc = 0;
    image.rewind();
    for (std::uint32_t left = image.size(); left > 0;) {
        const std::uint32_t wanted = std::min(left, kChunkSize);
        std::uint32_t count = 0;
        if (interruption::requested() ||
            image.read(buffer.data(), wanted, count) != ImageSource::Result::kOk)
            return false;
        crc = crc64(crc, buffer.data(), count);
        if (count < wanted)
            break;
        left -= count;
    }
    return true;
}
