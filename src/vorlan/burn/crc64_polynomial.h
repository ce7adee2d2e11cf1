// The polynomial of CRC-64/REDIS, for the tables and factors of its implementation.
#pragma once

#include <cstdint>

// 0xAD93D23594C935A9 with its bits in reverse: bit 63 is the coefficient of x^0.
constexpr std::uint64_t kCrc64ReflectedPolynomial = 0x95AC9329AC4BC9B5;

// A bit-reflected remainder multiplied by x, modulo the polynomial.
constexpr std::uint64_t crc64TimesX(std::uint64_t remainder) {
    return (remainder >> 1) ^ ((remainder & 1) != 0 ? kCrc64ReflectedPolynomial : 0);
}
