// How long a device may take for the commands of a burn, which follows from the size of the area.
#pragma once

#include <cstdint>

// `perMiB` for every MiB that the size begins.
constexpr std::uint32_t timePerStartedMiB(std::uint32_t size, std::uint32_t perMiB) {
    constexpr std::uint64_t kAlmostOneMiB = 0xFFFFF;
    return static_cast<std::uint32_t>((size + kAlmostOneMiB) >> 20) * perMiB;
}

// Seconds for each chunk of a FLASH_WRITE to be programmed.
constexpr std::uint32_t maxChunkWait(std::uint32_t size) {
    return timePerStartedMiB(size, 15);
}

// Milliseconds for the result of a FLASH_WRITE, `checked` against its CRC-64 or not.
constexpr std::uint32_t writeResultTimeout(std::uint32_t size, bool checked) {
    return maxChunkWait(size) * 1000 * (checked ? 2 : 1);
}

// Milliseconds for the result of a VERIFY_ONLY or ERASE_ONLY.
constexpr std::uint32_t scanResultTimeout(std::uint32_t size) {
    return timePerStartedMiB(size, 10'000);
}

// A result is asked for about every 100 ms, and at least once.
constexpr std::uint32_t kResultPollMs = 100;
constexpr std::uint32_t resultPolls(std::uint32_t timeout) {
    return (timeout + kResultPollMs) / kResultPollMs;
}
