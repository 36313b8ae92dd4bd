// The two checksums of an InfiniBand packet (IBA 7.8). Both begin with the least significant bit of each byte
// (reflected CRCs). Both are sent with the least significant byte first.
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

// The bits that a switch may change in the packet's byte at `offset`. In the invariant CRC, these bits count as ones.
constexpr uint8_t variant_bits(size_t offset)
{
    constexpr size_t vl_offset = 0, bth_reserved_offset = 12;
    if (offset == vl_offset) return 0xF0;
    return offset == bth_reserved_offset ? 0xFF : 0;
}

// Writes the invariant CRC of a packet without a GRH: a CRC-32 over the first `size` bytes of the packet, from the LRH
// to the end of the payload.
inline void write_invariant_crc(const uint8_t* packet, size_t size, uint8_t (&bytes)[4])
{
    uint32_t crc = UINT32_MAX;
    for (size_t i = 0; i < size; ++i) crc = crc_step<uint32_t, 0xEDB88320>(crc, packet[i] | variant_bits(i));
    crc = ~crc;
    for (int i = 0; i < 4; ++i) bytes[i] = static_cast<uint8_t>(crc >> 8 * i);
}

// Writes the variant CRC, with the polynomial x^16 + x^12 + x^3 + x + 1, over the first `size` bytes of the packet.
// These bytes include the invariant CRC.
inline void write_variant_crc(const uint8_t* packet, size_t size, uint8_t (&bytes)[2])
{
    uint16_t crc = UINT16_MAX;
    for (size_t i = 0; i < size; ++i) crc = crc_step<uint16_t, 0xD008>(crc, packet[i]);
    crc = static_cast<uint16_t>(~crc);
    for (int i = 0; i < 2; ++i) bytes[i] = static_cast<uint8_t>(crc >> 8 * i);
}

} // namespace fabric
