#include "cli/service/fabric-arguments.h"

#include "console/distinct-files.h"
#include "console/journal.h"
#include "console/usage.h"

namespace cli
{

namespace
{

using ats::error_kind;

// Prints a line about a port of `host`.
void print_port_remark(const std::string& host, const umad::port_remark& remark)
{
    console::print_limited({.text = remark.text, .part = "port", .host = host, .hca = remark.hca, .port = remark.port});
}

ats::result<world_config> real_config(const fabric_arguments& arguments)
{
    if (arguments.hosts_option->count() > 0)
        return ats::fail(error_kind::invalid,
                         "--hosts is for the embedded fabric: on a real one there is one host, this machine");
    return real_host(arguments.identity, {.hcas = arguments.hcas,
                                          .watch_interval_ticks = static_cast<uint64_t>(arguments.port_interval_ms),
                                          .sa_delete_p_key = delete_p_key_of(arguments.sa_delete_pkey)});
}

ats::result<> check_files(const fabric_config& fabric, const fabric_arguments& arguments)
{
    const std::string config = arguments.config_option->empty() ? "" : arguments.config_option->as<std::string>();
    const char* const capture_name = arguments.capture.empty() ? "'capture' in [fabric]" : "--capture";
    return console::check_distinct_files(
        {{"--config", config}, {capture_name, fabric.capture}, {"--record", fabric.record}});
}

} // namespace

std::vector<CLI::Option*> add_identity_options(CLI::App& command, identity_options& identity)
{
    return {command
                .add_option(
                    "--name", identity.name,
                    "The host name to register; replaces that of a --config with one host (default: this machine's)")
                ->option_text("NAME"),
            command
                .add_option("--address", identity.address,
                            "The IPv4 address to register; replaces that of a --config with one host")
                ->option_text("ADDRESS")};
}

void add_fabric_options(CLI::App& command, fabric_arguments& arguments, CLI::Option* hosts, CLI::Option* config)
{
    arguments.hosts_option = hosts;
    arguments.config_option = config;
    auto* kind = command
                     .add_option("--fabric", arguments.kind,
                                 "embedded: hosts on a fabric inside the program (default); umad: this machine on its "
                                 "real InfiniBand ports")
                     ->check(console::one_of({"embedded", "umad"}))
                     ->excludes(config)
                     ->option_text("KIND");
    const auto make_real_only = [&](CLI::Option* option, const char* value_name) {
        option->needs(kind)->excludes(hosts)->option_text(value_name);
        arguments.real_only_options.push_back(option);
    };
    make_real_only(
        command.add_option("--hca", arguments.hcas, "Use this HCA; may be given several times (default: all)")
            ->take_all(),
        "NAME");
    for (CLI::Option* option : add_identity_options(command, arguments.identity))
        arguments.one_host_options.push_back(option->excludes(hosts));
    make_real_only(command
                       .add_option("--sa-delete-pkey", arguments.sa_delete_pkey,
                                   "Give Deletes the P_Key of this host's record: auto, on or off (default: auto)")
                       ->check(console::one_of({"auto", "on", "off"})),
                   "WHEN");
    make_real_only(command
                       .add_option("--port-interval", arguments.port_interval_ms,
                                   "How often ports are asked for their state, in ms (default: 100)")
                       ->check(console::number_from(10, 60'000)),
                   "MS");
    command.add_option("--capture", arguments.capture, "Write every datagram to this file, for Wireshark and tshark")
        ->option_text("FILE");
    command
        .add_option("--record", arguments.record,
                    "Record everything that happens in this file, for 'ats replay': datagrams, ports, logs, records")
        ->option_text("FILE");
}

ats::result<world_config> with_fabric(world_config config, const fabric_arguments& arguments)
{
    if (arguments.is_real()) {
        ats::result<world_config> real = real_config(arguments);
        if (!real) return real;
        config = std::move(*real);
    }
    for (const CLI::Option* option : arguments.real_only_options)
        if (!arguments.is_real() && option->count() > 0)
            return ats::fail(error_kind::invalid,
                             option->get_name() +
                                 " is for --fabric umad; hosts on the embedded fabric are described by --config");
    for (const CLI::Option* option : arguments.one_host_options)
        if (!arguments.is_real() && arguments.config_option->count() == 0 && option->count() > 0)
            return ats::fail(error_kind::invalid,
                             option->get_name() + " is for --fabric umad, or for a --config with one host");
    config.fabric.ports.report = [host = config.hosts.front().name](const umad::port_remark& remark) {
        print_port_remark(host, remark);
    };
    if (!arguments.capture.empty()) config.fabric.capture = arguments.capture;
    config.fabric.record = arguments.record;
    if (const ats::result<> files = check_files(config.fabric, arguments); !files) return ats::pass_on(files);
    return config;
}

} // namespace cli
