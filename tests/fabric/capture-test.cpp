// The capture file of a fabric: errors of its writes, and the checksums of its packets.
#include "host/fabric/capture.h"

#include <cstring>
#include <gtest/gtest.h>

#include "host/fabric/packet-crc.h"

namespace
{

TEST(capture, a_write_failure_is_reported)
{
    fabric::capture nowhere("/nonexistent/a.pcap");
    EXPECT_EQ(nowhere.status().error().text, "cannot write the capture /nonexistent/a.pcap: No such file or directory");
    nowhere.crossed(0, 1, {}, {});
    EXPECT_EQ(nowhere.packets(), 0u);

    fabric::capture full("/dev/full");
    full.crossed(0, 1, {}, {});
    EXPECT_EQ(full.flush().error().text, "cannot write the capture /dev/full: No space left on device");
    EXPECT_EQ(full.close().error().text, full.status().error().text);
}

TEST(capture, checksums_are_the_standard_ones)
{
    uint32_t crc = UINT32_MAX;
    for (const uint8_t digit : {'1', '2', '3', '4', '5', '6', '7', '8', '9'})
        crc = fabric::crc_step<uint32_t, 0xEDB88320>(crc, digit);
    EXPECT_EQ(~crc, 0xCBF43926) << "the published check value of CRC-32";

    // A switch may change the VL (4 bits) and one byte of the BTH. The invariant CRC must not depend on them. It must
    // depend on every other bit.
    uint8_t packet[32] = {}, invariant_crc[4], crc_of_change[4];
    fabric::write_invariant_crc(packet, sizeof packet, invariant_crc);
    for (size_t bit = 0; bit < 8 * sizeof packet; ++bit) {
        packet[bit / 8] ^= static_cast<uint8_t>(0x80 >> bit % 8);
        fabric::write_invariant_crc(packet, sizeof packet, crc_of_change);
        const bool may_change = bit < 4 || bit / 8 == 12;
        EXPECT_EQ(memcmp(invariant_crc, crc_of_change, sizeof crc_of_change) == 0, may_change) << "bit " << bit;
        packet[bit / 8] = 0;
    }
}

} // namespace
