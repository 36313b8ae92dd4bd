// The ports report of the control file, taken apart.
#include "cli/control-report.h"

#include <gtest/gtest.h>

namespace
{

using cli::json;

constexpr const char* report =
    R"(DEBUG   : ATS : ats_proc_read:(ats_api.cpp):page = 0x1, *start = 0x1, off = 0, count = C00
mthca0: ATS Ports Info
==============
The Active Port Is Port Number 2
Port1 Info:
=============
Port State Down
Port service gid  : 0xFE800000000000000200000000010001
Port lid 0x2 (2)
Port IP Address 10.0.0.1 (100000a)
Send Counter 0x0 , Receive Counter 0x0
=================================================
Port2 Info:
=============
Port State Active
Port service gid  : 0xFE800000000000000200000000010002
Port lid 0x1F (31)
Port IP Address 255.255.255.255 (ffffffff)
Send Counter 0xFFFFFFFFFFFFFFFF , Receive Counter 0x10
=================================================
==============
a: ATS Ports Info: ATS Ports Info
==============
There is No Active Port !!!
==============
SA verification period:-5   verification skew(%): 100
)";

TEST(control_report, every_line_finds_its_place_and_strange_lines_none)
{
    const json expected = {{"hcas",
                            {{{"name", "mthca0"},
                              {"active_port", 2},
                              {"ports",
                               {{{"port", 1},
                                 {"state", "Down"},
                                 {"gid", "0xFE800000000000000200000000010001"},
                                 {"lid", 2},
                                 {"address", "10.0.0.1"},
                                 {"sent", 0},
                                 {"received", 0}},
                                {{"port", 2},
                                 {"state", "Active"},
                                 {"gid", "0xFE800000000000000200000000010002"},
                                 {"lid", 31},
                                 {"address", "255.255.255.255"},
                                 {"sent", UINT64_MAX},
                                 {"received", 16}}}}},
                             {{"name", "a: ATS Ports Info"}, {"active_port", nullptr}, {"ports", json::array()}}}},
                           {"verification", {{"period", -5}, {"skew", 100}}}};
    EXPECT_EQ(cli::parse_control_report(report), expected);
}

TEST(control_report, lines_that_are_cut_or_out_of_place_are_passed_over)
{
    const json empty = {{"hcas", json::array()}};
    for (const char* text : {"", "\n\n", "Port State Active\n", "Port1 Info:\nPort lid 0x2 (2)\n", "SA verification"})
        EXPECT_EQ(cli::parse_control_report(text), empty) << text;
    const json cut = cli::parse_control_report("m: ATS Ports Info\nPort1 Info:\nPort IP Address 10.0.0\nPort lid 0x\n");
    EXPECT_EQ(cut["hcas"][0]["ports"][0], json({{"port", 1}}));
}

} // namespace
