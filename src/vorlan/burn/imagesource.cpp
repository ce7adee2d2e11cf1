#include "vorlan/burn/imagesource.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <deque>
#include <mutex>
#include <utility>

#include "utils/fileutil.h"
#include "utils/interruption.h"
#include "vorlan/burn/crc64.h"
#include "vorlan/burn/usb_protocol.h"

namespace {

// The CRCs of the files that were burned lately.
class KnownCrcs {
  public:
    bool find(const platform::File::Stamp& stamp, std::uint64_t& crc) {
        const std::lock_guard guard(lock_);
        const auto known = std::find_if(known_.begin(), known_.end(),
                                        [&](const auto& one) { return one.first == stamp; });
        if (known != known_.end())
            crc = known->second;
        return known != known_.end();
    }

    void add(const platform::File::Stamp& stamp, std::uint64_t crc) {
        constexpr std::size_t kMost = 256;  // no package has so many images
        const std::lock_guard guard(lock_);
        if (known_.size() == kMost)
            known_.pop_front();
        known_.emplace_back(stamp, crc);
    }

  private:
    std::mutex lock_;
    std::deque<std::pair<platform::File::Stamp, std::uint64_t>> known_;
};

KnownCrcs& knownCrcs() {
    static KnownCrcs crcs;
    return crcs;
}

// Some file systems tell times in steps of two seconds: in the step of a file's last change another
// may follow unseen.
bool hasSettled(const platform::File::Stamp& stamp) {
    constexpr std::chrono::nanoseconds kStep = std::chrono::seconds(2);
    const std::chrono::nanoseconds now = std::chrono::system_clock::now().time_since_epoch();
    return now - std::chrono::nanoseconds(std::max(stamp.modified, stamp.changed)) > kStep;
}

bool readCrc64(ImageSource& image, std::uint64_t& crc) {
    crc = 0;
    image.rewind();
    for (std::uint32_t left = image.size(); left > 0;) {
        const std::uint32_t wanted = std::min(left, kChunkSize);
        if (interruption::requested())
            return false;
        const ImageSource::Chunk chunk = image.next(wanted);
        if (chunk.result != ImageSource::Result::kOk)
            return false;
        crc = crc64(crc, chunk.bytes, chunk.count);
        if (chunk.count < wanted)
            break;
        left -= chunk.count;
    }
    return true;
}

}  // namespace

ImageSource::Chunk MemoryImage::next(std::uint32_t wanted) {
    const std::uint32_t count = std::min(wanted, size_ - position_);
    const std::uint8_t* const bytes = data_ + position_;
    position_ += count;
    return {Result::kOk, bytes, count, 0};
}

// The rest of the block is filled in by reading.
// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init)
FileImage::FileImage(std::FILE* file) : file_(file), size_(fileutil::sizeOf(file)) {}

void FileImage::rewind() {
    std::rewind(file_);
    begin_ = end_ = 0;
}

ImageSource::Chunk FileImage::next(std::uint32_t wanted) {
    int error = 0;
    if (end_ - begin_ < wanted) {
        std::copy(block_.begin() + begin_, block_.begin() + end_, block_.begin());
        end_ -= std::exchange(begin_, 0);
        end_ += std::fread(block_.data() + end_, 1, block_.size() - end_, file_);
        error = errno;
    }
    const auto count = static_cast<std::uint32_t>(std::min<std::size_t>(wanted, end_ - begin_));
    Chunk chunk{Result::kOk, block_.data() + begin_, count, 0};
    if (count < wanted && std::ferror(file_) != 0)
        chunk = {Result::kError, chunk.bytes, count, error};
    else if (count < wanted && std::feof(file_) == 0)
        return {Result::kIncomplete, chunk.bytes, count, 0};
    begin_ += count;
    return chunk;
}

bool imageCrc64(ImageSource& image, std::uint64_t& crc) {
    const std::optional<platform::File::Stamp> stamp = image.stamp();
    if (stamp && knownCrcs().find(*stamp, crc))
        return true;
    if (!readCrc64(image, crc))
        return false;
    if (stamp && hasSettled(*stamp) && image.stamp() == stamp)
        knownCrcs().add(*stamp, crc);
    return true;
}
