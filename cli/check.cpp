#include "cli/check.h"

#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <unistd.h>

#include <fmt/core.h>
#include <nlohmann/json.hpp>

#include "cli/check-fabric.h"
#include "cli/check-findings.h"
#include "cli/check-service.h"
#include "cli/mount/proc-mount.h"
#include "cli/service/fabric-arguments.h"
#include "client/socket-path.h"
#include "console/errors.h"
#include "console/table.h"
#include "console/usage.h"
#include "host/world/module-folder.h"

namespace cli
{

namespace
{

void check_modules(findings& findings, const std::string& folder)
{
    std::string missing_modules;
    for (const char* module : {"ibat.so", "ucm.so", "ats.so"}) {
        if (std::filesystem::exists(folder + "/" + module)) continue;
        if (!missing_modules.empty()) missing_modules += ", ";
        missing_modules += module;
    }
    if (missing_modules.empty())
        findings.add_ok("modules", "all are in " + folder);
    else
        findings.add_missing(
            "modules", fmt::format("{} not found in {}: name their folder with --modules", missing_modules, folder));
}

void check_fuse(findings& findings)
{
    const std::string effect = "'ats run --mount' will be refused; 'ats log' and 'ats control' work without it";
    if (!proc_mount::is_available()) return findings.add_note("FUSE", "not built in (libfuse3-dev): " + effect);
    const int device = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (device < 0) return findings.add_note("FUSE", "cannot open /dev/fuse ('modprobe fuse', as root): " + effect);
    close(device);
    findings.add_ok("FUSE", "/dev/fuse may be used");
}

void show(const findings& findings, bool as_json)
{
    if (!as_json) {
        std::cout << console::format_table(findings.rows(), 0);
        return;
    }
    nlohmann::json checks = nlohmann::json::array();
    for (const console::table_row& row : findings.rows())
        checks.push_back({{"verdict", row[0]}, {"what", row[1]}, {"text", row[2]}});
    console::show_json(std::cout, {{"fit", findings.is_fit()}, {"checks", checks}});
}

struct check_options {
    std::string modules = world::default_module_folder();
    std::string config;
    identity_options identity;
    std::string socket = client::own_socket_path();
    bool as_json = false;
};

// Makes the checks and prints the findings. Returns the exit code. Without a configuration, checks whether the machine
// can run one host on its real ports. If the configuration has an error, omits the checks that depend on it.
int run_check(const check_options& options)
{
    findings findings;
    std::optional<world_config> config{{.hosts = {host_config()}, .fabric = {.is_real = true}}};
    if (!options.config.empty()) config = check_config(findings, options.config, options.identity);
    check_modules(findings, options.modules);
    if (config) check_fabric(findings, *config);
    check_fuse(findings);
    if (config) check_doors(findings, *config, options.socket);
    if (config) check_metrics_folder(findings, *config);
    if (config) check_limits(findings, *config);
    show(findings, options.as_json);
    return findings.is_fit() ? console::exit_ok : console::exit_failed;
}

} // namespace

void add_check(CLI::App& program, ats::result<int>& outcome)
{
    CLI::App* command = program.add_subcommand(
        "check", "Check if this machine can run a host on its real ports, and list what is missing");
    auto options = std::make_shared<check_options>();
    command->add_flag("--json", options->as_json, "Print JSON")->option_text(" ");
    CLI::Option* config =
        command
            ->add_option("--config", options->config,
                         "Also check this configuration, and the machine for its hosts; start nothing")
            ->option_text("FILE");
    for (CLI::Option* option : add_identity_options(*command, options->identity)) option->needs(config);
    command->add_option("--socket", options->socket, "The socket on which the service would serve clients")
        ->option_text("PATH");
    console::add_module_folder_option(*command, options->modules);
    command->callback(console::command_callback(outcome, [options] { return run_check(*options); }));
}

} // namespace cli
