// The options of `ats run` that select the fabric: the embedded one, or this machine's real ports.
#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "cli/service/world-config.h"

namespace cli
{

struct fabric_arguments {
    std::string kind = "embedded"; // or "umad"
    std::vector<std::string> hcas;
    std::string name;
    std::string address;
    std::string capture;
    std::string record;
    std::string sa_delete_pkey = "auto";
    int port_interval_ms = 100;
    const CLI::Option* hosts_option = nullptr;
    std::vector<const CLI::Option*> real_only_options; // invalid for an embedded fabric

    bool is_real() const { return kind == "umad"; }
};

// Adds the options to the command. Its options --hosts and --config exclude some of them. `arguments` must outlive the
// command.
void add_fabric_options(CLI::App& command, fabric_arguments& arguments, CLI::Option* hosts, CLI::Option* config);

// Completes the configuration from --config or --hosts. On a real fabric without --config, that configuration is empty.
// Options that contradict each other are invalid.
ats::result<world_config> with_fabric(world_config config, const fabric_arguments& arguments);

} // namespace cli
