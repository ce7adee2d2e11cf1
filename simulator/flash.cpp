#include "simulator/flash.h"

#include <algorithm>
#include <iterator>

#include "simulator/crc64.h"

namespace simulator {

template <typename Visit>
void Flash::forPieces(std::uint64_t address, std::uint64_t size, Visit visit) {
    while (size > 0) {
        const std::uint64_t offset = address % kPageSize;
        const std::uint64_t piece = std::min(size, kPageSize - offset);
        visit(address / kPageSize, offset, piece);
        address += piece;
        size -= piece;
    }
}

const Flash::Page& Flash::page(std::uint64_t number) const {
    static const Page erased = [] {
        Page page;
        page.fill(kErased);
        return page;
    }();
    const auto found = pages_.find(number);
    return found != pages_.end() ? *found->second : erased;
}

void Flash::program(std::uint32_t address, std::span<const std::uint8_t> bytes) {
    if (bytes.empty())
        return;
    const std::lock_guard guard(lock_);
    const std::uint8_t* source = bytes.data();
    forPieces(address, bytes.size(), [&](auto number, auto offset, auto size) {
        std::unique_ptr<Page>& target = pages_[number];
        if (target == nullptr) {
            target = std::make_unique<Page>();
            if (size < kPageSize)
                target->fill(kErased);
        }
        std::copy_n(source, size, target->begin() + static_cast<std::ptrdiff_t>(offset));
        source += size;
    });
    remember(address, address + std::uint64_t{bytes.size()});
}

void Flash::erase(std::uint32_t address, std::uint64_t size) {
    const std::lock_guard guard(lock_);
    // Only pages that exist are worth a visit: the range may be the whole address space.
    const std::uint64_t end = address + size;
    for (auto it = pages_.begin(); it != pages_.end();) {
        const std::uint64_t pageBegin = it->first * kPageSize;
        const std::uint64_t from = std::max<std::uint64_t>(address, pageBegin);
        const std::uint64_t to = std::min(end, pageBegin + kPageSize);
        if (from < to && to - from == kPageSize) {
            it = pages_.erase(it);
            continue;
        }
        if (from < to)
            std::fill_n(it->second->begin() + static_cast<std::ptrdiff_t>(from - pageBegin),
                        to - from, kErased);
        ++it;
    }
}

std::vector<std::uint8_t> Flash::read(std::uint32_t address, std::size_t size) const {
    std::vector<std::uint8_t> bytes;
    bytes.reserve(size);
    const std::lock_guard guard(lock_);
    forPieces(address, size, [&](auto number, auto offset, auto piece) {
        const auto from = page(number).begin() + static_cast<std::ptrdiff_t>(offset);
        bytes.insert(bytes.end(), from, from + static_cast<std::ptrdiff_t>(piece));
    });
    return bytes;
}

bool Flash::holds(std::uint32_t address, std::span<const std::uint8_t> bytes) const {
    const std::lock_guard guard(lock_);
    const std::uint8_t* expected = bytes.data();
    bool same = true;
    forPieces(address, bytes.size(), [&](auto number, auto offset, auto piece) {
        same = same && std::equal(expected, expected + piece,
                                  page(number).begin() + static_cast<std::ptrdiff_t>(offset));
        expected += piece;
    });
    return same;
}

std::uint64_t Flash::crc64(std::uint32_t address, std::uint64_t size) const {
    const std::lock_guard guard(lock_);
    std::uint64_t crc = 0;
    forPieces(address, size, [&](auto number, auto offset, auto piece) {
        crc = simulator::crc64(crc, std::span(page(number)).subspan(offset, piece));
    });
    return crc;
}

std::vector<Flash::Range> Flash::writtenRanges() const {
    const std::lock_guard guard(lock_);
    std::vector<Range> ranges;
    ranges.reserve(written_.size());
    for (const auto& [begin, end] : written_)
        ranges.push_back({static_cast<std::uint32_t>(begin), end - begin});
    return ranges;
}

void Flash::remember(std::uint64_t begin, std::uint64_t end) {
    auto next = written_.upper_bound(begin);
    if (next != written_.begin()) {
        const auto previous = std::prev(next);
        if (previous->second >= begin) {
            begin = previous->first;
            end = std::max(end, previous->second);
        }
    }
    while (next != written_.end() && next->first <= end) {
        end = std::max(end, next->second);
        next = written_.erase(next);
    }
    written_[begin] = end;
}

}  // namespace simulator
