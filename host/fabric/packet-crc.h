// The two checksums of an InfiniBand packet (IBA 7.8). Both are sent least significant byte first, bits reflected.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace fabric
{

template <class crc_t>
constexpr std::array<crc_t, 256> crc_table(crc_t reflected_polynomial)
{
    std::array<crc_t, 256> table{};
    for (unsigned byte = 0; byte < table.size(); ++byte) {
        auto crc = static_cast<crc_t>(byte);
        for (int bit = 0; bit < 8; ++bit) crc = static_cast<crc_t>(crc >> 1 ^ (crc & 1 ? reflected_polynomial : 0));
        table[byte] = crc;
    }
    return table;
}

template <class crc_t, crc_t reflected_polynomial>
constexpr crc_t crc_step(crc_t crc, uint8_t byte)
{
    constexpr auto table = crc_table<crc_t>(reflected_polynomial);
    return static_cast<crc_t>(crc >> 8 ^ table[(crc ^ byte) & 0xFF]);
}

// The invariant CRC of a packet without a GRH: a CRC-32 over LRH, BTH and what follows, in which the fields that a
// switch may change count as ones: the VL in byte 0 and the BTH's reserved byte 12.
inline void write_invariant_crc(const uint8_t* packet, size_t size, uint8_t (&to)[4])
{
    uint32_t crc = UINT32_MAX;
    for (size_t i = 0; i < size; ++i) {
        const uint8_t masked = i == 0 ? 0xF0 : i == 12 ? 0xFF : 0;
        crc = crc_step<uint32_t, 0xEDB88320>(crc, packet[i] | masked);
    }
    crc = ~crc;
    for (int i = 0; i < 4; ++i) to[i] = static_cast<uint8_t>(crc >> 8 * i);
}

// The variant CRC, over everything up to the invariant CRC's end: x^16 + x^12 + x^3 + x + 1.
inline void write_variant_crc(const uint8_t* packet, size_t size, uint8_t (&to)[2])
{
    uint16_t crc = UINT16_MAX;
    for (size_t i = 0; i < size; ++i) crc = crc_step<uint16_t, 0xD008>(crc, packet[i]);
    crc = static_cast<uint16_t>(~crc);
    for (int i = 0; i < 2; ++i) to[i] = static_cast<uint8_t>(crc >> 8 * i);
}

} // namespace fabric
