// The options of `ats run` that say on which fabric: the embedded one, or this machine's real ports.
#pragma once

#include <string>
#include <vector>

#include "cli/service/world-config.h"
#include <CLI/CLI.hpp>

namespace cli
{

struct fabric_options {
    std::string kind = "embedded";
    std::vector<std::string> hcas;
    std::string name;
    std::string address;
    std::string capture;
    std::string sa_delete_pkey = "auto";
    int port_interval_ms = 1000;
    const CLI::Option* hosts = nullptr;           // the command's
    std::vector<const CLI::Option*> of_real_host; // those that an embedded fabric has no use for
};

// `hosts` and `config` are the options of the command that make no sense together with a real host's.
void add_fabric_options(CLI::App& command, fabric_options& options, CLI::Option* hosts, CLI::Option* config);

// Completes what --config or --hosts gave (nothing, on a real fabric without --config). Throws a failure for what does
// not fit together.
world_config with_fabric(world_config given, const fabric_options& options);

bool wants_real_host(const fabric_options& options);

} // namespace cli
