#include "cli/demo/demo.h"

#include <chrono>
#include <cstdio>
#include <iterator>
#include <unistd.h>

#include "cli/demo/demo-steps.h"
#include "console/errors.h"
#include "console/usage.h"
#include "host/fabric/capture.h"
#include "host/world/module-folder.h"

namespace cli
{

namespace
{

constexpr struct {
    const char* title;
    void (*play)(stage& stage);
} steps[] = {
    {"Three hosts load IBAT, UCM and ats. Each has one port, node2 has two.", load_modules},
    {"The links come up: each host makes a port its active one and registers it at the SA.", bring_links_up},
    {"node1 resolves an address to its GID and back; the way back is in IBAT's cache.", resolve_both_ways},
    {"An address that nobody has.", ask_for_an_unknown_address},
    {"An SA that answers nothing.", ask_a_silent_sa},
    {"node2 loses its active port, and its other port takes over.", lose_the_active_port},
    {"The SA forgets node1, which finds out and registers again.", lose_a_record},
    {"node3 takes node1's address: the SA will not choose between them.", use_an_address_twice},
    {"node3 changes its address, but the SA is silent: three tries, then the next self-check.",
     change_address_at_a_silent_sa},
    {"node3 changes its name, by its control file, which also reports.", change_name},
    {"node3 leaves, and can no longer be resolved.", leave_one_host},
    {"Everybody unloads.", unload_modules},
};

using wall_clock = std::chrono::steady_clock;

double seconds_since(wall_clock::time_point begin)
{
    return std::chrono::duration<double>(wall_clock::now() - begin).count();
}

// Runs the steps until one fails. Returns the exit code.
int play(stage& stage)
{
    for (size_t i = 0; i < std::size(steps); ++i) {
        stage.begin(i + 1, steps[i].title);
        try {
            steps[i].play(stage);
        } catch (const step_failed& failure) {
            std::printf("    FAILED. Expected, but not so: %s.\n", failure.what());
            return console::exit_failed;
        } catch (const exec::stalled& stall) {
            std::printf("    FAILED. No task of the simulation can go on:\n%s\n", stall.what());
            return console::exit_failed;
        }
    }
    return console::exit_ok;
}

// Returns the exit code. `capture` (or null) receives every datagram.
int run_demo(const std::string& module_folder, fabric::capture* capture)
{
    const auto begin = wall_clock::now();
    stage stage(module_folder, capture, isatty(STDOUT_FILENO) == 1);
    const int exit_code = play(stage);
    if (exit_code == console::exit_ok)
        std::printf("All %zu steps happened: %.1f s of simulated time in %.2f s.\n", std::size(steps),
                    static_cast<double>(stage.time().now()) / 1000, seconds_since(begin));
    return exit_code;
}

ats::result<int> run_captured_demo(const std::string& module_folder, const std::string& path)
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto now_ms = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    fabric::capture capture(path, static_cast<uint64_t>(now_ms));
    const ats::result<> status = capture.status();
    if (!status) return ats::fail(ats::error_kind::invalid, status.error().text);
    const int exit_code = run_demo(module_folder, &capture);
    const ats::result<> end = capture.close();
    if (!end) return ats::pass_on(end);
    std::printf("%llu datagrams are in %s: open it with Wireshark, or 'tshark -V -r %s'.\n",
                static_cast<unsigned long long>(capture.packets()), path.c_str(), path.c_str());
    return exit_code;
}

} // namespace

void add_demo(CLI::App& program, ats::result<int>& outcome)
{
    CLI::App* command =
        program.add_subcommand("demo", "Show the service at work: three hosts on a simulated fabric, in a moment");
    auto path = std::make_shared<std::string>();
    auto modules = std::make_shared<std::string>(world::default_module_folder());
    command->add_option("--capture", *path, "Write every datagram to this file, for Wireshark and tshark")
        ->option_text("FILE");
    console::add_module_folder_option(*command, *modules);
    command->callback(console::command_callback(outcome, [=]() -> ats::result<int> {
        if (path->empty()) return run_demo(*modules, nullptr);
        return run_captured_demo(*modules, *path);
    }));
}

} // namespace cli
