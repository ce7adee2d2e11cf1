#include "vorlan/burn/imagesource.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

using Stamp = platform::File::Stamp;

namespace {

std::int64_t secondsAgo(int seconds) {
    const auto then = std::chrono::system_clock::now() - std::chrono::seconds(seconds);
    return std::chrono::nanoseconds(then.time_since_epoch()).count();
}

// An image of one chunk that tells how often it is read.
class CountedImage final : public ImageSource {
  public:
    explicit CountedImage(std::optional<Stamp> stamp) : stamp_(stamp) {}

    std::uint32_t size() const override { return static_cast<std::uint32_t>(content.size()); }
    std::optional<Stamp> stamp() const override { return stamp_; }
    void rewind() override { ++reads; }
    Chunk next(std::uint32_t /*wanted*/) override {
        if (changesMeanwhile)
            ++stamp_->changed;
        return {fails ? Result::kError : Result::kOk,
                reinterpret_cast<const std::uint8_t*>(content.data()), size(), 0};
    }

    std::string content = "image";
    int reads = 0;
    bool changesMeanwhile = false;
    bool fails = false;

  private:
    std::optional<Stamp> stamp_;
};

// How often two CRCs of the same image have it read.
int readsOf(CountedImage image) {
    std::uint64_t first = 1;
    std::uint64_t second = 2;
    EXPECT_TRUE(imageCrc64(image, first));
    EXPECT_TRUE(imageCrc64(image, second));
    EXPECT_EQ(first, second);
    return image.reads;
}

}  // namespace

TEST(ImageCrc, OfAFileIsTakenOnceAsLongAsNobodyWritesToIt) {
    const Stamp old{
        .device = 1, .inode = 2, .size = 5, .modified = secondsAgo(60), .changed = secondsAgo(50)};
    EXPECT_EQ(readsOf(CountedImage(old)), 1);
    EXPECT_EQ(readsOf(CountedImage(old)), 0);
    for (const auto change : {&Stamp::modified, &Stamp::changed}) {
        Stamp other = old;
        ++(other.*change);
        EXPECT_EQ(readsOf(CountedImage(other)), 1);
        // So new that another change might not be seen.
        other.*change = secondsAgo(0);
        EXPECT_EQ(readsOf(CountedImage(other)), 2);
        other.*change = secondsAgo(-60);
        EXPECT_EQ(readsOf(CountedImage(other)), 2);
    }
    for (const auto change : {&Stamp::device, &Stamp::inode, &Stamp::size}) {
        Stamp other = old;
        ++(other.*change);
        EXPECT_EQ(readsOf(CountedImage(other)), 1);
    }
    EXPECT_EQ(readsOf(CountedImage(std::nullopt)), 2);
}

TEST(ImageCrc, ThatWentWrongOrHadAnotherWriterIsNotKept) {
    const Stamp before{.inode = 3, .changed = secondsAgo(50)};
    CountedImage image(before);
    std::uint64_t crc = 0;
    image.fails = true;
    EXPECT_FALSE(imageCrc64(image, crc));
    image.fails = false;
    image.changesMeanwhile = true;
    EXPECT_TRUE(imageCrc64(image, crc));
    EXPECT_EQ(readsOf(CountedImage(before)), 1);
    CountedImage other(Stamp{.inode = 4, .changed = secondsAgo(50)});
    other.content = "egami";
    std::uint64_t otherCrc = 0;
    EXPECT_TRUE(imageCrc64(other, otherCrc));
    EXPECT_NE(otherCrc, crc);
}
