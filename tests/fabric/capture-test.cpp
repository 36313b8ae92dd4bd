#include "host/fabric/capture.h"

#include <cstdlib>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/fabric/embedded/subnet.h"
#include "host/fabric/packet-crc.h"
#include "requests.h"

namespace
{

using testing::HasSubstr;

// What a command prints, or nothing when it fails.
std::string output_of(const std::string& command)
{
    std::string text;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char part[4096];
        while (const size_t size = fread(part, 1, sizeof part, pipe)) text.append(part, size);
        if (pclose(pipe) != 0) text.clear();
    }
    return text;
}

std::vector<std::string> lines_of(const std::string& text)
{
    std::vector<std::string> lines;
    for (size_t begin = 0, end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1)
        lines.push_back(text.substr(begin, end - begin));
    return lines;
}

TEST(capture, tshark_decodes_an_exchange_down_to_the_record)
{
    if (output_of("tshark --version 2>/dev/null").empty())
        GTEST_SKIP() << "tshark is missing or does not run (Debian: apt-get install tshark)";
    const std::string path = testing::TempDir() + "capture-test.pcap";
    {
        auto sim = kernel::make_simulation({.start_tick = 1500});
        fabric::capture file(path);
        embedded::subnet net(*sim);
        net.set_tap(&file);
        fabric::hca& hca = net.add_hca("node1", "mthca0", 1);
        test::listening told;
        hca.listen(&told);
        ASSERT_TRUE(net.link_up("node1", "mthca0", 1));
        net.faults.latency_ticks = 250;
        const auto record = test::host_record(hca.read_port(1).gids[0], 7, 0x8001, 600);
        const auto set = test::request(MAD_METHOD_SET, test::mask_all, record, 0x1122334455667788);
        ASSERT_TRUE(hca.send(1, {.lid = 1, .sl = 2}, test::bytes_of(set)));
        sim->run_for(1000);
        ASSERT_EQ(told.arrivals.size(), 1u);
        hca.listen(nullptr);
        net.set_tap(nullptr);
        EXPECT_EQ(file.packets(), 2u);
        EXPECT_EQ(file.close(), "");
    }
    const char* fields[] = {"frame.time_epoch",
                            "infiniband.lrh.slid",
                            "infiniband.lrh.dlid",
                            "infiniband.lrh.sl",
                            "infiniband.bth.destqp",
                            "infiniband.deth.q_key",
                            "infiniband.mad.method",
                            "infiniband.mad.transactionid",
                            "infiniband.mad.attributeid",
                            "infiniband.sa.componentmask",
                            "infiniband.linkrecord.serviceid",
                            "infiniband.linkrecord.servicegid",
                            "infiniband.linkrecord.servicep_key",
                            "infiniband.linkrecord.servicelease",
                            "infiniband.linkrecord.servicename",
                            "infiniband.linkrecord.servicedata"};
    std::string command = "tshark -r " + path + " -T fields -E separator='|'";
    for (const char* field : fields) command += std::string(" -e ") + field;
    const auto packets = lines_of(output_of(command + " 2>/dev/null"));
    ASSERT_EQ(packets.size(), 2u);
    const std::string name = "4441504c2041646472657373205472616e736c6174696f6e2053657276696365" + std::string(64, '0');
    const std::string record =
        "|0x1122334455667788|0x0031|0xffffffffffffffff|0x10000ce100415453|fe80::200:0:1:1|0x8001|"
        "0x00000258|" +
        name +
        "|0000000000000000000000000a000007,00000000000000000000000000000000,"
        "6e6f6465370000000000000000000000,00000000000000000000000000000000";
    EXPECT_EQ(packets[0], "1.500000000|2|1|2|0x000001|0x0000000080010000|0x02" + record);
    EXPECT_EQ(packets[1], "2.000000000|1|2|2|0x000001|0x0000000080010000|0x81" + record);
    std::filesystem::remove(path);
}

TEST(capture, a_failure_to_write_is_told)
{
    fabric::capture nowhere("/nonexistent/a.pcap");
    EXPECT_EQ(nowhere.failure(), "cannot write the capture /nonexistent/a.pcap: No such file or directory");
    nowhere.crossed(0, 1, {}, {});
    EXPECT_EQ(nowhere.packets(), 0u);

    fabric::capture full("/dev/full");
    full.crossed(0, 1, {}, {});
    EXPECT_EQ(full.flush(), "cannot write the capture /dev/full: No space left on device");
    EXPECT_EQ(full.close(), full.failure());
}

TEST(capture, checksums_are_the_standard_ones)
{
    uint32_t crc = UINT32_MAX;
    for (const uint8_t digit : {'1', '2', '3', '4', '5', '6', '7', '8', '9'})
        crc = fabric::crc_step<uint32_t, 0xEDB88320>(crc, digit);
    EXPECT_EQ(~crc, 0xCBF43926) << "the check value that CRC-32 is known by";

    // A switch may choose another VL: the invariant CRC must not change with it, but with every other bit.
    uint8_t packet[32] = {}, invariant[4], changed[4];
    fabric::write_invariant_crc(packet, sizeof packet, invariant);
    for (size_t bit = 0; bit < 8 * sizeof packet; ++bit) {
        packet[bit / 8] ^= static_cast<uint8_t>(0x80 >> bit % 8);
        fabric::write_invariant_crc(packet, sizeof packet, changed);
        const bool masked = bit < 4 || bit / 8 == 12;
        EXPECT_EQ(memcmp(invariant, changed, sizeof changed) == 0, masked) << "bit " << bit;
        packet[bit / 8] = 0;
    }
}

} // namespace
