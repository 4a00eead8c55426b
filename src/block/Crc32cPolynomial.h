#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace agent::detail {

/// CRC-32C polynomial 0x1EDC6F41 (RFC 3720, 12.1), bits reversed because the registers shift right: the most
/// significant bit of a register stands for x^0.
constexpr std::uint32_t kCastagnoliReflected = 0x82F63B78;

using Crc32cTable = std::array<std::uint32_t, 256>;

/// The register times x, modulo the polynomial.
constexpr std::uint32_t timesX(std::uint32_t crc)
{
    return (crc >> 1) ^ ((crc & 1U) != 0 ? kCastagnoliReflected : 0);
}

/// What a byte adds to the register when it is followed by `distance` more bytes of the step.
constexpr Crc32cTable makeSliceTable(unsigned int distance)
{
    Crc32cTable table{};
    for (std::uint32_t byte = 0; byte < table.size(); ++byte) {
        std::uint32_t crc = byte;
        for (unsigned int bit = 0; bit < 8 * (distance + 1); ++bit) crc = timesX(crc);
        table[byte] = crc;
    }
    return table;
}

constexpr std::uint32_t multiply(std::uint32_t a, std::uint32_t b)
{
    std::uint32_t product = 0;
    for (std::uint32_t bit = 0x80000000; bit != 0; bit >>= 1) {
        if ((a & bit) != 0) product ^= b;
        b = timesX(b);
    }
    return product;
}

/// x^exponent modulo the polynomial, by squaring.
constexpr std::uint32_t powerOfX(std::size_t exponent)
{
    std::uint32_t result = 0x80000000;      // 1
    std::uint32_t square = 0x80000000 >> 1; // x
    for (; exponent != 0; exponent >>= 1) {
        if ((exponent & 1) != 0) result = multiply(result, square);
        square = multiply(square, square);
    }
    return result;
}

/// Moves a register over `Bytes` zero bytes by four lookups: a register is linear in its bytes.
template <std::size_t Bytes>
class ZeroShift {
public:
    static constexpr std::uint32_t apply(std::uint32_t crc)
    {
        return s_tables[0][crc & 0xFF] ^ s_tables[1][crc >> 8 & 0xFF] ^ s_tables[2][crc >> 16 & 0xFF] ^
               s_tables[3][crc >> 24];
    }

private:
    static constexpr std::array<Crc32cTable, 4> makeTables()
    {
        std::array<Crc32cTable, 4> tables{};
        const std::uint32_t power = powerOfX(8 * Bytes);
        for (std::uint32_t place = 0; place < tables.size(); ++place) {
            for (std::uint32_t byte = 0; byte < 256; ++byte) tables[place][byte] = multiply(power, byte << (8 * place));
        }
        return tables;
    }

    static constexpr std::array<Crc32cTable, 4> s_tables = makeTables();
};

} // namespace agent::detail
