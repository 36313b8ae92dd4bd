#include "cli/demo/demo.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <unistd.h>

#include "cli/demo/demo-steps.h"
#include "console/distinct-files.h"
#include "console/errors.h"
#include "console/usage.h"
#include "host/fabric/capture.h"
#include "host/world/module-folder.h"
#include "recording/page.h"

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

struct demo_options {
    std::string modules = world::default_module_folder();
    std::string capture; // the file for all datagrams, or ""
    std::string html;    // the file for the page, or ""
};

// Runs the demo. Returns the exit code. `capture` (or null) receives every datagram. `recorder` (or null) receives
// every event.
ats::result<int> run_demo(const std::string& module_folder, fabric::capture* capture, recording::recorder* recorder)
{
    const auto begin = wall_clock::now();
    stage stage(module_folder, capture, recorder, isatty(STDOUT_FILENO) == 1);
    const int exit_code = play(stage);
    if (recorder)
        if (const ats::result<> finished = recorder->finish(stage.time().now()); !finished)
            return ats::pass_on(finished);
    if (exit_code == console::exit_ok)
        std::printf("All %zu steps happened: %.1f s of simulated time in %.2f s.\n", std::size(steps),
                    static_cast<double>(stage.time().now()) / 1000, seconds_since(begin));
    return exit_code;
}

// Runs the demo. With --html, also writes a page that shows it. `capture` may be null.
ats::result<int> run_drawn_demo(const demo_options& options, fabric::capture* capture)
{
    if (options.html.empty()) return run_demo(options.modules, capture, nullptr);
    if (const ats::result<> possible = recording::check_page(options.html); !possible)
        return ats::fail(ats::error_kind::invalid, possible.error().text);
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), std::fclose);
    if (!file) return ats::fail(std::string("cannot create a file for the recording: ") + std::strerror(errno));
    recording::recorder recorder(file.get(), "ats demo");
    const ats::result<int> exit_code = run_demo(options.modules, capture, &recorder);
    if (!exit_code) return exit_code;
    const ats::result<recording::cut_recording> cut = recording::cut(recording::text_of_file(file.get()), {});
    if (!cut) return ats::pass_on(cut);
    nlohmann::ordered_json about = {{"title", "ats demo"}};
    recording::add_window(about, cut->shown_window);
    if (const ats::result<> written = recording::write_page(options.html, about, cut->lines); !written)
        return ats::fail(ats::error_kind::invalid, written.error().text);
    std::printf("The picture is in %s: open it in a browser.\n", options.html.c_str());
    return exit_code;
}

ats::result<int> run_captured_demo(const demo_options& options)
{
    const std::string& path = options.capture;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto now_ms = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    fabric::capture capture(path, static_cast<uint64_t>(now_ms));
    const ats::result<> status = capture.status();
    if (!status) return ats::fail(ats::error_kind::invalid, status.error().text);
    const ats::result<int> exit_code = run_drawn_demo(options, &capture);
    if (!exit_code) return exit_code;
    const ats::result<> end = capture.close();
    if (!end) return ats::pass_on(end);
    std::printf("%llu datagrams are in %s: open it with Wireshark, or 'tshark -V -r %s'.\n",
                static_cast<unsigned long long>(capture.packets()), path.c_str(), path.c_str());
    return exit_code;
}

ats::result<int> run_demo(const demo_options& options)
{
    if (const ats::result<> result =
            console::check_distinct_files({{"--capture", options.capture}, {"--html", options.html}});
        !result)
        return ats::pass_on(result);
    return options.capture.empty() ? run_drawn_demo(options, nullptr) : run_captured_demo(options);
}

} // namespace

void add_demo(CLI::App& program, ats::result<int>& outcome)
{
    CLI::App* command =
        program.add_subcommand("demo", "Show the service at work: three hosts on a simulated fabric, in a moment");
    auto options = std::make_shared<demo_options>();
    command->add_option("--capture", options->capture, "Write every datagram to this file, for Wireshark and tshark")
        ->option_text("FILE");
    command->add_option("--html", options->html, "Draw everything that happens as a page for a browser, in this file")
        ->option_text("FILE");
    console::add_module_folder_option(*command, options->modules);
    command->callback(console::command_callback(outcome, [options] { return run_demo(*options); }));
}

} // namespace cli
