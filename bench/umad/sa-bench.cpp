// Measures OpenSM's SA on an ibsim fabric. Runs sa-load once for each number of records. Prints a JSON object for each
// measurement; docs/data/opensm.jsonl is such output.
//   sa-bench RECORDS... [-- OPTION...]      passes the options to sa-load
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "tools/fabric/ibsim-fabric.h"

namespace
{

using namespace fabric_tools;

const std::string sm_node = "sm", asker_node = "asker";
constexpr auto longest = 1800s; // the time limit of one sa-load

// Measures one size of the SA's table. Every size gets its own fabric and SM, because OpenSM keeps the memory of
// deleted records.
void measure(const std::string& records, const std::vector<std::string>& options)
{
    ibsim_fabric net({sm_node, asker_node}, LARGE_SOCKET_BUFFERS);
    const std::unique_ptr<process> sm = net.start_sm(sm_node);
    if (!ibsim_fabric::wait_master(*sm)) throw std::runtime_error("OpenSM does not start: " + sm->output());
    const std::string guid = net.run(sm_node, {"ibstat", "-p"}); // "0x", 16 digits and a line end
    if (guid.size() != 19) throw std::runtime_error("ibstat shows no port GUID: " + guid);

    std::vector<std::string> arguments = {SA_LOAD, std::to_string(sm->pid()), records, guid.substr(0, 18)};
    arguments.insert(arguments.end(), options.begin(), options.end());
    const std::unique_ptr<process> load = net.start(asker_node, "load", arguments);
    const std::optional<int> exit_code = load->wait_end(longest);
    std::fputs(load->output().c_str(), stdout);
    std::fflush(stdout);
    if (!exit_code) net.kill(*load);
    if (exit_code != 0) throw std::runtime_error("sa-load failed with " + records + " records");
}

} // namespace

int main(int count, char** arguments)
{
    if (const auto check = ibsim_fabric::check_programs(); !check) {
        std::fprintf(stderr, "no figures of OpenSM: %s\n", check.error().text.c_str());
        return 0;
    }
    throw_when_interrupted();
    try {
        int sizes = 1;
        while (sizes < count && std::strcmp(arguments[sizes], "--") != 0) ++sizes;
        const std::vector<std::string> options(arguments + std::min(sizes + 1, count), arguments + count);
        for (int i = 1; i < sizes; ++i) measure(arguments[i], options);
        return 0;
    } catch (const interrupted&) {
        return 130;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "sa-bench: %s\n", error.what());
        return 1;
    }
}
