#include "cli/run.h"
#include "client/socket-path.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <iostream>
#include <memory>
#include <thread>
#include <unistd.h>

#include "cli/acm/door.h"
#include "cli/acm/turn-away.h"
#include "cli/mount/proc-mount.h"
#include "cli/server/server.h"
#include "cli/service/fabric-arguments.h"
#include "cli/service/registration.h"
#include "cli/service/running-hosts.h"
#include "cli/service/service-notice.h"
#include "cli/socket/socket.h"
#include "console/errors.h"
#include "console/progress.h"
#include "console/usage.h"
#include "host/exec/shortage.h"
#include "host/world/module-folder.h"
#include "host/world/printable.h"

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
    int log_kib = 0; // 0: as configured
    std::string mount;
    std::string modules = world::default_module_folder();
    fabric_arguments fabric;
    bool is_acm_served = false; // besides the configuration
    std::string acm_socket;
};

// The signals that stop the service. They are blocked in this thread and in all threads that it starts later; only
// wait() accepts them.
class stop_signals
{
  public:
    stop_signals()
    {
        sigemptyset(&set_);
        for (const int number : numbers) sigaddset(&set_, number);
        pthread_sigmask(SIG_BLOCK, &set_, nullptr);
        signal(SIGPIPE, SIG_IGN); // a closed terminal must not keep the hosts from deleting their records
    }

    bool is_pending() const
    {
        sigset_t pending;
        sigpending(&pending);
        return std::ranges::any_of(numbers, [&](int number) { return sigismember(&pending, number) == 1; });
    }

    // A signal may come twice at once: timeout(1) signals the process and then its group. Such repeats are dropped. A
    // later signal ends the program at once.
    void wait() const
    {
        constexpr std::chrono::milliseconds repeat_limit(100);
        constexpr timespec no_wait{};
        int number = 0;
        sigwait(&set_, &number);
        std::this_thread::sleep_for(repeat_limit);
        while (sigtimedwait(&set_, nullptr, &no_wait) > 0) continue;
        pthread_sigmask(SIG_UNBLOCK, &set_, nullptr);
    }

  private:
    static constexpr std::array numbers = {SIGINT, SIGTERM, SIGHUP};
    sigset_t set_;
};

// Null without a directory.
ats::result<std::unique_ptr<proc_mount>> mount(const std::string& directory, const running_hosts& hosts)
{
    if (directory.empty()) return nullptr;
    std::vector<kernel::machine*> machines;
    for (const auto& host : hosts.all()) machines.push_back(&host->machine());
    return proc_mount::open(directory, machines);
}

void announce(const run_options& options, size_t host_count)
{
    std::cout << "ats: " << host_count << (host_count == 1 ? " host" : " hosts") << " up; clients are served on "
              << options.socket;
    if (!options.mount.empty()) std::cout << ", files are in " << options.mount;
    std::cout << ". Stop with Ctrl-C." << std::endl;
}

// Prints the outcome and returns the exit code.
int unload(running_hosts& hosts)
{
    const std::vector<std::string> refusals = hosts.stop();
    for (const std::string& refusal : refusals) std::cerr << "ats: " << world::printable_lines(refusal) << '\n';
    if (!refusals.empty()) return console::exit_failed;
    std::cout << "ats: all hosts have unloaded." << std::endl;
    return console::exit_ok;
}

// The configuration that --config and --hosts ask for; empty on a real fabric without --config.
ats::result<world_config> hosts_config(const run_options& options)
{
    if (!options.config.empty()) return read_world_config(options.config);
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

// Shows the progress on a terminal. False if a signal came meanwhile.
ats::result<bool> start(running_hosts& hosts, const stop_signals& signals)
{
    const std::string count = std::to_string(hosts.all().size());
    console::progress progress;
    return hosts.start([&](size_t started_count) {
        progress.show("starting host " + std::to_string(started_count + 1) + " of " + count);
        return !signals.is_pending();
    });
}

// Says why programs that use librdmacm are not answered. The service goes on without them.
void report_acm(const ats::error& error)
{
    std::cerr << "ats: programs that use librdmacm are not answered: " << world::printable_lines(error.text)
              << std::endl;
}

bool has_registered(world::host& host)
{
    return std::ranges::all_of(registrations_of(host), [](const json& hca) { return hca.value("registered", false); });
}

// Programs that have waited for the restart need a path. There is none before the hosts are registered.
void wait_for_registrations(const running_hosts& hosts, std::chrono::milliseconds limit)
{
    constexpr std::chrono::milliseconds period(5);
    const auto deadline = std::chrono::steady_clock::now() + limit;
    const auto is_ready = [](const auto& host) { return has_registered(*host); };
    while (!std::ranges::all_of(hosts.all(), is_ready) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(period);
}

// Answers programs that use librdmacm, if configured; in any case those that an earlier process of the service served.
struct acm_service {
    acm_service(server& server, running_hosts& hosts, const world_config& config, std::vector<kept_descriptor> kept)
        : routes(server, hosts), door(server.loop(), routes, config.acm, config.limits, std::move(kept))
    {
        if (!config.acm.is_served) return;
        if (const ats::result<> listens = door.listen(); !listens) report_acm(listens.error());
    }

    acm::route_finder routes;
    acm::door door;
};

// Serves clients and files until a signal comes.
ats::result<> serve_clients(const run_options& options, const world_config& config, running_hosts& hosts,
                            std::unique_ptr<listening_socket> socket, std::vector<kept_descriptor> kept,
                            const stop_signals& signals)
{
    const ats::result<std::unique_ptr<proc_mount>> files = mount(options.mount, hosts);
    if (!files) return ats::pass_on(files);
    const ats::result<std::unique_ptr<server>> server =
        server::start(hosts, std::move(socket), {config.access, config.limits});
    if (!server) return ats::pass_on(server);
    if (!kept.empty()) wait_for_registrations(hosts, std::chrono::milliseconds(config.acm.timeout_ms));
    const acm_service acm(**server, hosts, config, std::move(kept));
    announce(options, hosts.all().size());
    notify_service_manager("READY=1");
    signals.wait();
    notify_service_manager("STOPPING=1");
    return {};
}

// The exit code, or the error that kept the service from running. Takes `kept` when the hosts are up.
ats::result<int> serve(const run_options& options, std::vector<kept_descriptor>& kept)
{
    const ats::result<world_config> config = config_of(options);
    if (!config) return ats::pass_on(config);
    for (const std::string& warning : config->warnings)
        std::cerr << "ats: warning: " << world::printable_lines(warning) << std::endl;
    const stop_signals signals;
    const exec::reserve last_memory([] { kill(getpid(), SIGTERM); });
    ats::result<std::unique_ptr<listening_socket>> socket =
        listening_socket::open(options.socket, config->access.is_open_to_others());
    if (!socket) return ats::pass_on(socket);
    const ats::result<std::unique_ptr<running_hosts>> hosts = running_hosts::build(*config, options.modules);
    if (!hosts) return ats::pass_on(hosts);
    const ats::result<bool> started = start(**hosts, signals);
    if (!started) return ats::pass_on(started);
    if (!*started) {
        std::cerr << "ats: told to end while hosts were starting\n";
        signals.wait();
        return unload(**hosts);
    }
    const ats::result<> served = serve_clients(options, *config, **hosts, std::move(*socket), std::move(kept), signals);
    if (!served) return ats::pass_on(served);
    const int exit_code = unload(**hosts);
    if (!exec::reserve::is_used()) return exit_code;
    return ats::fail(ats::error_kind::no_memory,
                     "the memory was used up, so all hosts were stopped: raise the limit, or run fewer hosts");
}

ats::result<int> run(const run_options& options)
{
    std::vector<kept_descriptor> kept = take_kept_descriptors();
    const ats::result<int> outcome = serve(options, kept);
    acm::turn_away(std::move(kept));
    return outcome;
}

} // namespace

void add_run(CLI::App& program, ats::result<int>& outcome)
{
    CLI::App* command = program.add_subcommand("run", "Keep hosts running on a fabric until a signal");
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
    command->add_option("--socket", options->socket, "Where clients are served (default: " + options->socket + ")")
        ->option_text("PATH");
    command->add_flag("--acm", options->is_acm_served, "Answer programs that use librdmacm, in place of ibacm")
        ->option_text(" ");
    command
        ->add_option("--acm-socket", options->acm_socket, "The same, where this socket is (default: /run/ibacm.sock)")
        ->option_text("PATH");
    console::add_module_folder_option(*command, options->modules);
    command->callback(console::command_callback(outcome, [options] { return run(*options); }));
}

} // namespace cli
