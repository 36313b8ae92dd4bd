#include "cli/run.h"
#include "client/socket-path.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <ctime>
#include <fstream>
#include <iostream>
#include <memory>
#include <random>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

#include "cli/acm/door.h"
#include "cli/acm/refuse-requests.h"
#include "cli/metrics/metrics.h"
#include "cli/metrics/outlets.h"
#include "cli/mount/proc-mount.h"
#include "cli/server/server.h"
#include "cli/server/watchdog.h"
#include "cli/service/fabric-arguments.h"
#include "cli/service/registration.h"
#include "cli/service/reload.h"
#include "cli/service/running-hosts.h"
#include "cli/service/service-notice.h"
#include "cli/service/service-signals.h"
#include "cli/service/start-delay.h"
#include "cli/socket/socket.h"
#include "console/errors.h"
#include "console/identity.h"
#include "console/journal.h"
#include "console/progress.h"
#include "console/usage.h"
#include "host/exec/shortage.h"
#include "host/world/module-folder.h"

namespace cli
{

namespace
{

using nlohmann::json;

constexpr int most_numbered_hosts = 1000;

struct run_options {
    int hosts = 3; // node1, node2, node3
    std::string config;
    std::string socket = client::own_socket_path();
    int log_kib = 0; // memory of each host's log, in KiB; 0 means the configured size
    std::string mount;
    std::string modules = world::default_module_folder();
    fabric_arguments fabric;
    bool is_acm_served = false; // true for --acm; false leaves the decision to the configuration
    std::string acm_socket;
};

void print_error(const std::string& line)
{
    console::print({.priority = console::priority::error, .text = line});
}

// Returns a function that prints warnings about `part`, a part of the service. docs/operations.md lists the parts.
std::function<void(const std::string&)> warnings_about(const char* part)
{
    return [part](const std::string& line) {
        console::print_limited({.priority = console::priority::warning, .text = line, .part = part});
    };
}

void warn_of_host(const std::string& host, const std::string& line)
{
    console::print_limited(
        {.priority = console::priority::warning, .text = host + ": " + line, .part = "registration", .host = host});
}

// Prints a warning if other hosts cannot find `host` by its address, because it has several HCAs.
void warn_of_several_hcas(world::host& host, const std::string& address)
{
    std::vector<std::string> names;
    for (fabric::hca* hca : host.machine().hcas()) names.push_back(hca->name());
    if (names.size() > 1) warn_of_host(host.name(), "warning: " + console::several_hcas_warning(names, address));
}

void print_reload(const std::string& line, const std::string& host)
{
    console::print_limited({.text = line, .part = "reload", .host = host});
}

// Mounts the files of the hosts on `directory`. Returns null if `directory` is "".
ats::result<std::unique_ptr<proc_mount>> mount(const std::string& directory, const running_hosts& hosts)
{
    if (directory.empty()) return nullptr;
    std::vector<kernel::machine*> machines;
    for (const auto& host : hosts.all()) machines.push_back(&host->machine());
    return proc_mount::open(directory, machines);
}

// Prints a line on stdout. After a failure, sets std::cout to bad, because the program checks std::cout at its end.
void print_output(const std::string& line)
{
    if (!console::print_output(line)) std::cout.setstate(std::ios::badbit);
}

void announce(const run_options& options, size_t host_count)
{
    std::string line = "ats: " + std::to_string(host_count) + (host_count == 1 ? " host" : " hosts") +
                       " up; clients are served on " + options.socket;
    if (!options.mount.empty()) line += ", files are in " + options.mount;
    print_output(line + ". Stop with Ctrl-C.");
}

// Stops the hosts and prints the result. Returns the exit code.
int unload(running_hosts& hosts)
{
    const std::vector<std::string> refusals = hosts.stop();
    for (const std::string& refusal : refusals) print_error(refusal);
    if (!refusals.empty()) return console::exit_failed;
    print_output("ats: all hosts have unloaded.");
    return console::exit_ok;
}

// Returns the configuration that --config or --hosts selects. With --fabric umad it is empty, and with_fabric() fills
// it.
ats::result<world_config> hosts_config(const run_options& options)
{
    if (!options.config.empty()) return read_world_config(options.config, options.fabric.identity);
    return options.fabric.is_real() ? world_config() : numbered_hosts(options.hosts);
}

ats::result<world_config> config_of(const run_options& options)
{
    ats::result<world_config> config = hosts_config(options);
    if (!config) return config;
    config = with_fabric(std::move(*config), options.fabric);
    if (!config) return config;
    if (options.is_acm_served || !options.acm_socket.empty()) config->acm.is_served = true;
    if (!options.acm_socket.empty()) config->acm.socket = options.acm_socket;
    if (options.log_kib > 0)
        for (world::host_plan& host : config->hosts) host.log_bytes = bytes_of_kib(options.log_kib);
    return config;
}

// Waits for the time that start_delay() returns. Returns false if a signal to stop came meanwhile.
bool wait_after_machine_start(const host_settings& settings, const service_signals& signals,
                              console::progress& progress)
{
    timespec uptime{};
    clock_gettime(CLOCK_BOOTTIME, &uptime);
    const std::chrono::milliseconds delay =
        start_delay(settings.spread_seconds, std::chrono::seconds(uptime.tv_sec), std::random_device()());
    const auto end = std::chrono::steady_clock::now() + delay;
    if (delay.count() > 0) progress.show("waiting for up to " + std::to_string(settings.spread_seconds) + " seconds");
    while (std::chrono::steady_clock::now() < end) {
        if (signals.is_stop_pending()) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

// Starts the hosts, and shows the progress on a terminal. Returns false if a signal to stop came meanwhile.
ats::result<bool> start(const world_config& config, running_hosts& hosts, const service_signals& signals)
{
    const std::string count = std::to_string(hosts.all().size());
    console::progress progress;
    if (config.fabric.is_real && !wait_after_machine_start(config.hosts.front().settings, signals, progress))
        return false;
    return hosts.start([&](size_t started_count) {
        progress.show("starting host " + std::to_string(started_count + 1) + " of " + count);
        return !signals.is_stop_pending();
    });
}

// Prints a warning that programs that use librdmacm are not answered, and why. The service continues.
void report_acm(const ats::error& error)
{
    warnings_about("librdmacm")("programs that use librdmacm are not answered: " + error.text);
}

// Prints a warning if the file for ibacm's TCP port names a port. librdmacm then connects to that port, not to our
// socket.
void warn_of_port_file()
{
    constexpr const char* path = "/run/ibacm.port";
    std::ifstream file(path);
    int port = 0;
    if (file >> port && port > 0)
        warnings_about("librdmacm")("warning: programs that use librdmacm ask TCP port " + std::to_string(port) +
                                    " instead, because " + path + " says so: remove the file");
}

bool has_registered(world::host& host)
{
    return std::ranges::all_of(registrations_of(host), [](const json& hca) { return hca.value("registered", false); });
}

// Waits until all hosts are registered, at most for `limit`. Programs that have waited during a restart of the service
// ask for paths at once, and there are no paths before the hosts are registered.
void wait_for_registrations(const running_hosts& hosts, std::chrono::milliseconds limit)
{
    constexpr std::chrono::milliseconds period(5);
    const auto deadline = std::chrono::steady_clock::now() + limit;
    const auto is_ready = [](const auto& host) { return has_registered(*host); };
    while (!std::ranges::all_of(hosts.all(), is_ready) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(period);
}

// Answers programs that use librdmacm. New programs are answered only if the configuration says so. Programs that were
// connected to an earlier process of the service are always answered: `kept_descriptors` has their connections.
struct acm_service {
    acm_service(server& server, running_hosts& hosts, const world_config& config,
                std::vector<kept_descriptor> kept_descriptors)
        : routes(server, hosts), door(server.loop(), routes, config.acm, config.limits, hosts.statistics().librdmacm,
                                      std::move(kept_descriptors))
    {
        if (!config.acm.is_served) {
            door.remove_earlier_socket();
            return;
        }
        if (const ats::result<> listens = door.listen(); !listens) report_acm(listens.error());
        warn_of_port_file();
    }

    acm::route_finder routes;
    acm::door door;
};

// Reports a reload to the service manager, in the way of sd_notify(3).
void notify_reloading()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const auto now_us = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
    notify_service_manager(("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(now_us)).c_str());
}

// Reads the configuration again, and applies it. If it has an error, nothing changes.
void try_reload(const run_options& options, world_config& current, running_hosts& hosts, const reload_calls& calls)
{
    const ats::result<world_config> file = config_of(options);
    const auto warn = warnings_about("reload");
    if (!file) return warn("not reloaded, everything stays as it was: " + file.error().text);
    for (const std::string& warning : file->warnings) warn("warning: " + warning);
    const std::vector<host_config> before = current.hosts;
    reload(hosts, current, *file, calls);
    for (size_t i = 0; i < before.size(); ++i)
        if (const std::string& address = current.hosts[i].settings.address; address != before[i].settings.address)
            warn_of_several_hcas(*hosts.all()[i], address);
}

// Calls try_reload(), and tells the service manager about the reload. After an exception, for example exec::shortage,
// prints a warning. The service then continues.
void reload_config(const run_options& options, world_config& current, running_hosts& hosts, const reload_calls& calls)
{
    notify_reloading();
    try {
        try_reload(options, current, hosts, calls);
    } catch (const std::exception& error) {
        warnings_about("reload")(std::string("not reloaded any further: ") + error.what());
    }
    console::finish_lines();
    notify_service_manager("READY=1");
}

// Serves clients and files until a signal ends the service. A reload changes `config`.
ats::result<> serve_clients(const run_options& options, world_config& config, running_hosts& hosts,
                            std::unique_ptr<listening_socket> socket, std::vector<kept_descriptor> kept_descriptors,
                            const service_signals& signals)
{
    const ats::result<std::unique_ptr<proc_mount>> files = mount(options.mount, hosts);
    if (!files) return ats::pass_on(files);
    const ats::result<std::unique_ptr<server>> server =
        server::start(hosts, std::move(socket), {config.access, config.limits, warnings_about("service")});
    if (!server) return ats::pass_on(server);
    if (!kept_descriptors.empty()) wait_for_registrations(hosts, std::chrono::milliseconds(config.acm.timeout_ms));
    acm_service acm(**server, hosts, config, std::move(kept_descriptors));
    const metrics::outlets metrics_outlets(
        config.metrics, [&hosts] { return metrics::text_of(metrics::collect(hosts)); }, warnings_about("metrics"));
    announce(options, hosts.all().size());
    notify_service_manager("READY=1");
    const watchdog watchdog((*server)->loop(), (*server)->background(), (*server)->all_lookups(), hosts,
                            warnings_about("watchdog"));
    const reload_calls reload_calls{
        .set_rules =
            [&](const access_rules& access, const service_limits& limits) {
                acm.door.set_limits(limits);
                return (*server)->set_options({access, limits, warnings_about("service")});
            },
        .may_go_on = [&] { return !signals.is_stop_pending(); },
        .print = print_reload,
    };
    while (signals.wait() == service_signals::signal_meaning::reload)
        reload_config(options, config, hosts, reload_calls);
    notify_service_manager("STOPPING=1");
    return {};
}

// Runs the service until a signal ends it. Returns the exit code. Returns an error if the service could not run, or if
// its memory was used up. `kept_descriptors` has the connections of an earlier process. They move into the service when
// the hosts are up. If serve() returns before that, they remain in `kept_descriptors`.
ats::result<int> serve(const run_options& options, std::vector<kept_descriptor>& kept_descriptors)
{
    ats::result<world_config> config = config_of(options);
    if (!config) return ats::pass_on(config);
    for (const std::string& warning : config->warnings) warnings_about("configuration")("warning: " + warning);
    const service_signals signals(!options.config.empty());
    const exec::reserve last_memory([] { kill(getpid(), SIGTERM); });
    ats::result<std::unique_ptr<listening_socket>> socket =
        listening_socket::open(options.socket, config->access.is_open_to_others());
    if (!socket) return ats::pass_on(socket);
    const ats::result<std::unique_ptr<running_hosts>> hosts =
        running_hosts::build(*config, options.modules, warn_of_host);
    if (!hosts) return ats::pass_on(hosts);
    for (size_t i = 0; i < config->hosts.size(); ++i)
        warn_of_several_hcas(*(*hosts)->all()[i], config->hosts[i].settings.address);
    const ats::result<bool> start_result = start(*config, **hosts, signals);
    if (!start_result) return ats::pass_on(start_result);
    if (!*start_result) {
        console::print({.text = "stopped by a signal while hosts were starting"});
        signals.wait_for_stop();
        return unload(**hosts);
    }
    ats::result<> result;
    try {
        result = serve_clients(options, *config, **hosts, std::move(*socket), std::move(kept_descriptors), signals);
    } catch (...) { // for example, a thread could not be created
        exec::reserve::release();
        throw;
    }
    if (!result) return ats::pass_on(result);
    const int exit_code = unload(**hosts);
    if (!exec::reserve::is_used()) return exit_code;
    return ats::fail(ats::error_kind::no_memory,
                     "the memory was used up, so all hosts were stopped: raise the limit, or run fewer hosts");
}

// Raises the soft limit of open files to the hard limit. The soft limit is often 1024, for the sake of programs that
// use select(). This program does not use select(), and may have more clients.
void allow_more_descriptors()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit); // after a failure, the service runs with the old limit
}

ats::result<int> run(const run_options& options)
{
    allow_more_descriptors();
    console::start_line_writer();
    std::vector<kept_descriptor> kept_descriptors = take_kept_descriptors();
    const ats::result<int> outcome = serve(options, kept_descriptors);
    acm::refuse_waiting_requests(std::move(kept_descriptors));
    return outcome;
}

} // namespace

void add_run(CLI::App& program, ats::result<int>& outcome)
{
    CLI::App* command = program.add_subcommand("run", "Run hosts on a fabric until a signal comes");
    auto options = std::make_shared<run_options>();
    auto* hosts =
        command->add_option("--hosts", options->hosts, "How many hosts to run: node1, node2, ... (default: 3)")
            ->check(console::number_from(1, most_numbered_hosts))
            ->option_text("N");
    auto* config =
        command->add_option("--config", options->config, "A TOML file of [[host]] tables, instead of --hosts")
            ->check(console::existing_file())
            ->excludes(hosts)
            ->option_text("FILE");
    add_fabric_options(*command, options->fabric, hosts, config);
    command
        ->add_option("--log-kib", options->log_kib,
                     "Memory for each host's log; the oldest lines are dropped (default: " +
                         std::to_string(default_log_kib) + ")")
        ->check(console::number_from(least_log_kib, most_log_kib))
        ->option_text("KIB");
    command->add_option("--mount", options->mount, "Show every host's /proc tree and log as files in this folder")
        ->option_text("DIR");
    command->add_option("--socket", options->socket, "The socket for clients (default: " + options->socket + ")")
        ->option_text("PATH");
    command->add_flag("--acm", options->is_acm_served, "Answer programs that use librdmacm, instead of ibacm")
        ->option_text(" ");
    command
        ->add_option("--acm-socket", options->acm_socket, "Like --acm, but on this socket (default: /run/ibacm.sock)")
        ->option_text("PATH");
    console::add_module_folder_option(*command, options->modules);
    command->callback(console::command_callback(outcome, [options] { return run(*options); }));
}

} // namespace cli
