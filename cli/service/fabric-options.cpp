#include "cli/service/fabric-options.h"
#include "console/failure.h"
#include "console/usage.h"

#include <cstdio>

#include "host/world/printable.h"

namespace cli
{

namespace
{

// A line for whoever watches the service: on the terminal, or in the journal.
void tell(const std::string& line)
{
    std::fprintf(stderr, "ats: %s\n", world::printable_lines(line).c_str());
}

} // namespace

void add_fabric_options(CLI::App& command, fabric_options& options, CLI::Option* hosts, CLI::Option* config)
{
    options.hosts = hosts;
    auto* kind = command
                     .add_option("--fabric", options.kind,
                                 "embedded: hosts on a fabric inside the program (default); umad: this machine on its "
                                 "real InfiniBand ports")
                     ->check(console::one_of({"embedded", "umad"}))
                     ->excludes(config)
                     ->option_text("KIND");
    const auto of_real_host = [&](CLI::Option* option, const char* text) {
        option->needs(kind)->excludes(hosts)->option_text(text);
        options.of_real_host.push_back(option);
    };
    of_real_host(command.add_option("--hca", options.hcas, "Use this HCA; may be given several times (default: all)")
                     ->take_all(),
                 "NAME");
    of_real_host(command.add_option("--name", options.name, "The host name to register (default: this machine's)"),
                 "NAME");
    of_real_host(command.add_option("--address", options.address, "The IPv4 address to register"), "ADDRESS");
    of_real_host(command
                     .add_option("--sa-delete-pkey", options.sa_delete_pkey,
                                 "Give Deletes the P_Key of this host's record: auto, on or off (default: auto)")
                     ->check(console::one_of({"auto", "on", "off"})),
                 "WHEN");
    of_real_host(command
                     .add_option("--port-interval", options.port_interval_ms,
                                 "How often ports are asked for their state, in ms (default: 1000)")
                     ->check(console::number_from(10, 60'000)),
                 "MS");
    command.add_option("--capture", options.capture, "Write every datagram to this file, for Wireshark and tshark")
        ->option_text("FILE");
}

bool wants_real_host(const fabric_options& options)
{
    return options.kind == "umad";
}

world_config with_fabric(world_config given, const fabric_options& options)
{
    if (wants_real_host(options)) {
        if (options.hosts->count() > 0)
            throw console::failure(console::exit_usage,
                                   "--hosts is for the embedded fabric: on a real one there is one host, this machine");
        if (options.address.empty())
            throw console::failure(console::exit_usage,
                                   "a host on a real fabric needs its address: add --address, as in "
                                   "--address 10.0.0.1 (that of its IPoIB interface, if it has one)");
        given = real_host(options.name, options.address,
                          {.hcas = options.hcas,
                           .watch_interval_ticks = static_cast<uint64_t>(options.port_interval_ms),
                           .sa_delete_p_key = delete_p_key_of(options.sa_delete_pkey)});
    }
    for (const CLI::Option* option : options.of_real_host)
        if (!wants_real_host(options) && option->count() > 0)
            throw console::failure(console::exit_usage,
                                   option->get_name() +
                                       " is for --fabric umad; hosts on the embedded fabric are described by --config");
    given.fabric.ports.report = tell;
    if (!options.capture.empty()) given.fabric.capture = options.capture;
    return given;
}

} // namespace cli
