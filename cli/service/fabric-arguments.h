// The options of `ats run` that select the fabric: the embedded fabric, or the real ports of this machine.
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
    identity_options identity;
    std::string capture;
    std::string record;
    std::string sa_delete_pkey = "auto";
    int port_interval_ms = 100;
    const CLI::Option* hosts_option = nullptr;
    const CLI::Option* config_option = nullptr;
    std::vector<const CLI::Option*> one_host_options;  // invalid for an embedded fabric without --config
    std::vector<const CLI::Option*> real_only_options; // invalid for an embedded fabric

    bool is_real() const { return kind == "umad"; }
};

// Adds the options --name and --address to `command`, and returns them. `identity` must outlive the command.
std::vector<CLI::Option*> add_identity_options(CLI::App& command, identity_options& identity);

// Adds the options to `command`. `hosts` and `config` are the command's options --hosts and --config; some of the new
// options cannot go together with them. `arguments` must outlive the command.
void add_fabric_options(CLI::App& command, fabric_arguments& arguments, CLI::Option* hosts, CLI::Option* config);

// Adds the values of the options to `config`, which is the configuration from --config or --hosts. With --fabric umad,
// `config` is replaced by a configuration with one host, which is this machine. Fails (invalid) if options contradict
// each other, if a file would be written over another one, or if a host cannot have the name or the address.
ats::result<world_config> with_fabric(world_config config, const fabric_arguments& arguments);

} // namespace cli
