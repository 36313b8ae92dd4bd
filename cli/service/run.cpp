// `ats run`: hosts in real time, on the embedded fabric or this one on its real ports, until a signal.

#include <chrono>
#include <csignal>
#include <iostream>
#include <memory>
#include <thread>
#include <unistd.h>

#include "cli/mount/proc-mount.h"
#include "cli/service/fabric-options.h"
#include "cli/service/run.h"
#include "cli/service/running-hosts.h"
#include "cli/service/server.h"
#include "cli/service/service-notice.h"
#include "cli/socket/socket.h"
#include "console/failure.h"
#include "console/progress.h"
#include "console/usage.h"
#include "host/exec/shortage.h"
#include "host/world/module-folder.h"
#include "host/world/printable.h"

namespace cli
{

namespace
{

constexpr int most_numbered_hosts = 1000;

struct run_options {
    int hosts = 3; // node1, node2, node3
    std::string config;
    std::string socket = default_socket_path();
    int log_kib = 0; // 0: what the configuration says
    std::string mount;
    std::string modules = world::default_module_folder();
    fabric_options fabric;
};

// The signals that ask for an end, blocked in this thread and in all that it starts, so that only wait() takes them.
class ending_signals
{
  public:
    ending_signals()
    {
        sigemptyset(&set_);
        for (const int ending : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set_, ending);
        pthread_sigmask(SIG_BLOCK, &set_, nullptr);
        signal(SIGPIPE, SIG_IGN); // a terminal that is gone is no reason to leave records behind
    }

    bool has_come() const
    {
        sigset_t pending;
        sigpending(&pending);
        return sigismember(&pending, SIGINT) == 1 || sigismember(&pending, SIGTERM) == 1 ||
               sigismember(&pending, SIGHUP) == 1;
    }

    // A signal may come twice at once, as from timeout(1), which tells the process and then its group. Only one that
    // comes later is impatience, and ends the program there and then.
    void wait() const
    {
        constexpr std::chrono::milliseconds repeats_follow_within(100);
        constexpr timespec no_wait{};
        int caught = 0;
        sigwait(&set_, &caught);
        std::this_thread::sleep_for(repeats_follow_within);
        while (sigtimedwait(&set_, nullptr, &no_wait) > 0) continue;
        pthread_sigmask(SIG_UNBLOCK, &set_, nullptr);
    }

  private:
    sigset_t set_;
};

std::unique_ptr<proc_mount> mount(const std::string& directory, const running_hosts& hosts)
{
    if (directory.empty()) return nullptr;
    std::vector<kernel::machine*> machines;
    for (const auto& host : hosts.all()) machines.push_back(&host->machine());
    return console::value_or_throw(proc_mount::open(directory, machines));
}

void announce(const run_options& options, size_t hosts)
{
    std::cout << "ats: " << hosts << (hosts == 1 ? " host" : " hosts") << " up; clients are served on "
              << options.socket;
    if (!options.mount.empty()) std::cout << ", files are in " << options.mount;
    std::cout << ". Stop with Ctrl-C." << std::endl;
}

int unload(running_hosts& hosts)
{
    const std::vector<std::string> refusals = hosts.stop();
    for (const std::string& refusal : refusals) std::cerr << "ats: " << world::printable_lines(refusal) << '\n';
    if (!refusals.empty()) return console::exit_failed;
    std::cout << "ats: all hosts have unloaded." << std::endl;
    return console::exit_ok;
}

world_config configuration_of(const run_options& options)
{
    world_config given;
    if (!options.config.empty())
        given = read_world_config(options.config);
    else if (!wants_real_host(options.fabric))
        given = numbered_hosts(options.hosts);
    given = with_fabric(std::move(given), options.fabric);
    if (options.log_kib > 0)
        for (world::host_plan& host : given.hosts) host.log_bytes = bytes_of_kib(options.log_kib);
    return given;
}

// False when a signal came meanwhile.
bool start(running_hosts& hosts, const ending_signals& signals)
{
    const std::string all = std::to_string(hosts.all().size());
    console::progress shown;
    return hosts.start([&](size_t started) {
        shown.show("starting host " + std::to_string(started + 1) + " of " + all);
        return !signals.has_come();
    });
}

int serve(const run_options& options)
{
    const world_config config = configuration_of(options);
    for (const std::string& remark : config.remarks)
        std::cerr << "ats: warning: " << world::printable_lines(remark) << std::endl;
    const ending_signals signals;
    const exec::reserve last_memory([] { kill(getpid(), SIGTERM); });
    auto listening = console::value_or_throw(listening_socket::open(options.socket));
    running_hosts hosts(config, options.modules);
    if (!start(hosts, signals)) {
        std::cerr << "ats: told to end while hosts were starting\n";
        signals.wait();
        return unload(hosts);
    }
    {
        const std::unique_ptr<proc_mount> files = mount(options.mount, hosts);
        const server serving(hosts, std::move(listening));
        announce(options, hosts.all().size());
        notify_service_manager("READY=1");
        signals.wait();
        notify_service_manager("STOPPING=1");
    }
    const int unloaded = unload(hosts);
    if (!exec::reserve::is_used()) return unloaded;
    std::cerr << "ats: the memory was used up, so all hosts were stopped: raise the limit, or run fewer hosts\n";
    return console::exit_failed;
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
    console::add_module_folder_option(*command, options->modules);
    command->callback(console::command_callback(outcome, [options] { return serve(*options); }));
}

} // namespace cli
