// The flash of a virtual device: sparse, erased bytes read 0xFF. It remembers what has been
// written, so that a test can ask that nothing else was.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <unordered_map>
#include <vector>

namespace simulator {

// Every operation may be called from any thread. No range may pass the end of the 32-bit address
// space.
class Flash {
  public:
    static constexpr std::uint32_t kPageSize = 4096;
    static constexpr std::uint8_t kErased = 0xFF;

    struct Range {
        std::uint32_t address;
        std::uint64_t size;
        bool operator==(const Range&) const = default;
    };

    void program(std::uint32_t address, std::span<const std::uint8_t> bytes);
    // Fills the range with kErased. It does not count as written.
    void erase(std::uint32_t address, std::uint64_t size);

    std::vector<std::uint8_t> read(std::uint32_t address, std::size_t size) const;
    bool holds(std::uint32_t address, std::span<const std::uint8_t> bytes) const;
    // CRC-64 of the range, page by page.
    std::uint64_t crc64(std::uint32_t address, std::uint64_t size) const;

    // All that was ever programmed, by address; adjoining ranges are one.
    std::vector<Range> writtenRanges() const;

  private:
    using Page = std::array<std::uint8_t, kPageSize>;

    void remember(std::uint64_t begin, std::uint64_t end);
    // Calls visit(page number, offset in page, size) for each piece of the range.
    template <typename Visit>
    static void forPieces(std::uint64_t address, std::uint64_t size, Visit visit);
    const Page& page(std::uint64_t number) const;

    mutable std::mutex lock_;
    std::unordered_map<std::uint64_t, std::unique_ptr<Page>> pages_;
    std::map<std::uint64_t, std::uint64_t> written_;  // begin to end
};

}  // namespace simulator
