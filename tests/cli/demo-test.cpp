// `ats demo`. It must print all its steps, and fail if one of them fails. tshark must be able to read its capture.
#include <algorithm>

#include "host/world/module-folder.h"
#include "tests/cli/program.h"

namespace
{

using testing::HasSubstr;
using testing::Not;

std::string output_of(const std::string& shell_line)
{
    FILE* pipe = popen(shell_line.c_str(), "r");
    std::string output;
    char piece[65536];
    while (const size_t length = fread(piece, 1, sizeof piece, pipe)) output.append(piece, length);
    pclose(pipe);
    return output;
}

size_t count(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t place = text.find(part); place != std::string::npos; place = text.find(part, place + 1)) ++count;
    return count;
}

TEST(demo, tells_its_story_on_one_screen_and_captures_service_records_that_tshark_reads)
{
    const scratch_folder folder;
    const std::string capture = folder / "demo.pcap";
    const program_result demo = run_ats({"demo", "--capture", capture});
    EXPECT_EQ(demo.exit_code, 0) << demo.out;
    EXPECT_EQ(demo.err, "");
    EXPECT_LE(std::count(demo.out.begin(), demo.out.end(), '\n'), 50);
    for (const char* part : {" 1. Three hosts", "0xFFFF  10.0.0.2  node2      infinite", "from IBAT's cache",
                             "Setting port 2 to be the active port", "gid & ipaddress don't match",
                             "No host holds memory", "All 12 steps happened"})
        EXPECT_THAT(demo.out, HasSubstr(part));

    if (std::system("command -v tshark >/dev/null") != 0) GTEST_SKIP() << "no tshark here";
    const std::string packets = output_of("tshark -V -r " + capture + " 2>/dev/null");
    const size_t frames = count(packets, "Frame Number: ");
    EXPECT_GT(frames, 50u);
    EXPECT_EQ(count(packets, "alformed"), 0u);
    EXPECT_EQ(count(packets, "Attribute (ServiceRecord)"), frames);
    // The registration of node1, including the address and the name.
    for (const char* field :
         {"Destination Local ID: 1\n", "Destination Queue Pair: 0x000001", "Queue Key: 0x0000000080010000",
          "Method: Set() (0x02)", "ServiceID: 0x10000ce100415453", "ServiceGID: fe80::200:0:1:1",
          "ServiceP_Key: 0xffff", "ServiceLease: 0xffffffff",
          "ServiceName: 4441504c2041646472657373205472616e736c6174696f6e2053657276696365",
          "ServiceData: 0000000000000000000000000a000001", "ServiceData: 6e6f6465310000000000000000000000"})
        EXPECT_THAT(packets, HasSubstr(field));
}

// Here ucm.so is a copy of another module, so the third step fails.
TEST(demo, failed_step_ends_it_with_an_error)
{
    const scratch_folder folder;
    const std::filesystem::path modules = world::default_module_folder();
    const std::string folder_without_ucm = folder / "no-ucm";
    std::filesystem::create_directory(folder_without_ucm);
    for (const char* module : {"ibat.so", "ats.so"})
        std::filesystem::copy(modules / module, folder_without_ucm + "/" + module);
    std::filesystem::copy(modules / "probe.so", folder_without_ucm + "/ucm.so");
    const program_result no_ucm = run_ats({"demo", "--modules", folder_without_ucm});
    EXPECT_EQ(no_ucm.exit_code, 1);
    EXPECT_THAT(no_ucm.out, HasSubstr("FAILED. Expected, but not so"));
    EXPECT_THAT(no_ucm.out, HasSubstr(" 3. "));
    EXPECT_THAT(no_ucm.out, Not(HasSubstr(" 4. ")));
}

} // namespace
