// A simulated fabric of probes: programs that are the umad layer and nothing above it.
#pragma once

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <iostream>
#include <sstream>

#include "tools/fabric/ibsim-fabric.h"

namespace test
{

using namespace std::chrono_literals;
using fabric_tools::process;

inline const std::string host_probe = HOST_PROBE;

// Sends a command and returns the line that answers it, "" if there is none.
inline std::string ask(process& probe, const std::string& command, const std::string& answer)
{
    probe.write_line(command);
    return probe.wait_line(answer).value_or("");
}

// A request to the SA, sent again as long as there is no answer: an SA may be busy.
inline std::string ask_sa(process& probe, const std::string& command)
{
    for (int tries = 0; tries < 20; ++tries) {
        probe.write_line(command);
        if (const auto line = probe.wait_line("arrived", 1s)) return *line;
    }
    return "";
}

inline size_t times_in(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) ++count;
    return count;
}

struct fabric_of_probes : testing::Test {
    std::optional<fabric_tools::ibsim_fabric> net;
    std::unique_ptr<process> sm;

    void SetUp() override
    {
        if (const std::string why = fabric_tools::ibsim_fabric::missing(); !why.empty()) GTEST_SKIP() << why;
        net.emplace(
            std::vector<std::string>{"sm1", "sm2", "node1", "node2", "node3", "node4", "node5", "node6", "node7"});
    }

    // What a sanitizer finds in a program that is killed later is told nowhere else.
    void TearDown() override
    {
        if (!net) return;
        if (HasFailure()) std::cerr << "ibsim said:\n" << net->output();
        for (const auto& file : std::filesystem::recursive_directory_iterator(net->folder())) {
            if (file.path().filename() != "out") continue;
            std::ostringstream said;
            said << std::ifstream(file.path()).rdbuf();
            EXPECT_THAT(said.str(), testing::Not(testing::HasSubstr("Sanitizer:"))) << file.path();
        }
    }

    void start_sm(const std::string& node = "sm1")
    {
        sm = net->start_sm(node);
        ASSERT_TRUE(net->wait_master(*sm)) << sm->output();
    }

    std::unique_ptr<process> start_probe(const std::string& node, const std::vector<std::string>& arguments = {},
                                         const std::vector<std::string>& environment = {})
    {
        std::vector<std::string> all = {host_probe};
        all.insert(all.end(), arguments.begin(), arguments.end());
        auto probe = net->start(node, node, all, environment);
        EXPECT_TRUE(probe->wait_line("ready")) << probe->output();
        return probe;
    }

    std::string gid_of(process& probe)
    {
        const std::string line = ask(probe, "port", "port state");
        const size_t begin = line.find("first ") + 6;
        return line.substr(begin, line.find(' ', begin) - begin);
    }
};

} // namespace test
