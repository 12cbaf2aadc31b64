// Numbers in decimal.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qv
{

inline unsigned int count_digits(uint64_t number)
{
    // The smallest number of each length but the first.
    static constexpr auto powers = [] {
        std::array<uint64_t, 20> made{};
        uint64_t power = 1;
        for (size_t i = 1; i < made.size(); i++)
            made[i] = power *= 10;
        return made;
    }();
    // A bit stands for 1233/4096 digits: as many, or one too many.
    const unsigned int about = static_cast<unsigned int>(std::bit_width(number | 1)) * 1233 >> 12;
    return about + (number >= powers[about]);
}

// Divides a number by 10 or 100; returns the remainder. On a 32-bit machine by four of its own divisions,
// where the compiler's library would need several times as much code and time.
template <uint32_t divisor> size_t take_digits(uint64_t &number)
{
    if constexpr (sizeof(size_t) >= sizeof(uint64_t)) {
        const auto digits = static_cast<size_t>(number % divisor);
        number /= divisor;
        return digits;
    }
    uint32_t rest = 0;
    uint64_t quotient = 0;
    for (int shift = 48; shift >= 0; shift -= 16) {
        rest = rest << 16 | static_cast<uint16_t>(number >> shift);
        quotient = quotient << 16 | rest / divisor;
        rest %= divisor;
    }
    number = quotient;
    return rest;
}

// Writes a number of so many digits.
inline void put_digits(char *to, uint64_t number, unsigned int digits)
{
    static constexpr auto pairs = [] {
        std::array<char, 200> made{};
        for (size_t i = 0; i < 100; i++) {
            made[2 * i] = static_cast<char>('0' + i / 10);
            made[2 * i + 1] = static_cast<char>('0' + i % 10);
        }
        return made;
    }();
    char *at = to + digits;
    while (number >= 100)
        at = static_cast<char *>(memcpy(at - 2, &pairs[take_digits<100>(number) * 2], 2));
    if (number >= 10)
        memcpy(to, &pairs[static_cast<size_t>(number * 2)], 2);
    else
        *to = static_cast<char>('0' + number);
}

} // namespace qv
