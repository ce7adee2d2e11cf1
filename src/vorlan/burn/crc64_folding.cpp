#include "vorlan/burn/crc64_folding.h"

#include "vorlan/burn/crc64_polynomial.h"

#if defined(__x86_64__)

#include <immintrin.h>

namespace {

// x^exponent modulo the polynomial, bit-reflected like all values here.
constexpr std::uint64_t powerOfX(int exponent) {
    std::uint64_t value = std::uint64_t{1} << 63;
    for (int i = 0; i < exponent; ++i)
        value = crc64TimesX(value);
    return value;
}

// To move a 128-bit block `distance` bits towards the end of the data, its first half is multiplied
// by x^(distance + 64) and its second half by x^distance. The product of two reflected values comes
// out multiplied by x once more, which the exponents make up for.
struct FoldingFactors {
    std::uint64_t firstHalf;
    std::uint64_t secondHalf;
};

constexpr FoldingFactors factorsFor(int distance) {
    return {powerOfX(distance + 64 - 1), powerOfX(distance - 1)};
}

constexpr FoldingFactors kOneBlockOn = factorsFor(128);
constexpr FoldingFactors kFourBlocksOn = factorsFor(512);

#define VORLAN_CLMUL __attribute__((target("pclmul,sse2")))

VORLAN_CLMUL __m128i load(const std::uint8_t* data) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(data));
}

VORLAN_CLMUL __m128i toRegister(FoldingFactors factors) {
    return _mm_set_epi64x(static_cast<long long>(factors.secondHalf),
                          static_cast<long long>(factors.firstHalf));
}

VORLAN_CLMUL __m128i fold(__m128i block, __m128i factors, __m128i next) {
    const __m128i first = _mm_clmulepi64_si128(block, factors, 0x00);
    const __m128i second = _mm_clmulepi64_si128(block, factors, 0x11);
    return _mm_xor_si128(_mm_xor_si128(first, second), next);
}

VORLAN_CLMUL std::size_t foldWithClmul(std::uint64_t crc, const std::uint8_t* data,
                                       std::size_t size, std::uint8_t block[kFoldedBlockSize]) {
    constexpr std::size_t kLanes = 4;  // independent chains keep the multiplier busy
    constexpr std::size_t kStep = kLanes * kFoldedBlockSize;

    __m128i lanes[kLanes];
    for (std::size_t i = 0; i < kLanes; ++i)
        lanes[i] = load(data + i * kFoldedBlockSize);
    lanes[0] = _mm_xor_si128(lanes[0], _mm_set_epi64x(0, static_cast<long long>(crc)));

    const __m128i byFour = toRegister(kFourBlocksOn);
    std::size_t done = kStep;
    for (; size - done >= kStep; done += kStep) {
        for (std::size_t i = 0; i < kLanes; ++i)
            lanes[i] = fold(lanes[i], byFour, load(data + done + i * kFoldedBlockSize));
    }

    const __m128i byOne = toRegister(kOneBlockOn);
    __m128i folded = lanes[0];
    for (std::size_t i = 1; i < kLanes; ++i)
        folded = fold(folded, byOne, lanes[i]);
    for (; size - done >= kFoldedBlockSize; done += kFoldedBlockSize)
        folded = fold(folded, byOne, load(data + done));

    _mm_storeu_si128(reinterpret_cast<__m128i*>(block), folded);
    return done;
}

}  // namespace

std::size_t foldCrc64(std::uint64_t crc, const std::uint8_t* data, std::size_t size,
                      std::uint8_t block[kFoldedBlockSize]) {
    constexpr std::size_t kWorthFolding = 128;
    static const bool supported = __builtin_cpu_supports("pclmul");
    return supported && size >= kWorthFolding ? foldWithClmul(crc, data, size, block) : 0;
}

#else

std::size_t foldCrc64(std::uint64_t, const std::uint8_t*, std::size_t, std::uint8_t*) {
    return 0;
}

#endif
