#include "cli/check.h"

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <unistd.h>

#include <fmt/core.h>
#include <nlohmann/json.hpp>

#include "cli/check-findings.h"
#include "cli/check-service.h"
#include "cli/mount/proc-mount.h"
#include "cli/service/fabric-arguments.h"
#include "client/socket-path.h"
#include "console/errors.h"
#include "console/record-list.h"
#include "console/table.h"
#include "console/usage.h"
#include "host/fabric/umad/umad.h"
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

// Checks one port. Returns true if this user may use the port and the port is active.
bool check_port(findings& findings, const std::string& hca, const umad::port_listing& port)
{
    const std::string subject = fmt::format("{} port {}", hca, port.number);
    if (!umad::is_infiniband(port)) {
        findings.add_note(subject, "not InfiniBand, or without a management device: it is not used");
        return false;
    }
    const auto access = umad::try_port(hca, port.number);
    if (!access) {
        findings.add_missing(subject, access.error().text);
        return false;
    }
    const std::string device_text = port.device + " may be used; ";
    switch (port.state) {
    case fabric::link_state::active:
        findings.add_ok(subject, device_text + umad::active_text(port.lid, port.sm_lid));
        return true;
    case fabric::link_state::down:
        findings.add_note(subject, device_text + umad::link_down_text);
        return false;
    default:
        findings.add_missing(subject, device_text +
                                          "the link is up, but no subnet manager has activated the port: start "
                                          "one (opensm) somewhere on the fabric");
        return false;
    }
}

void check_service_records(findings& findings, umad::sa_client& sa)
{
    const auto own_records = console::list_records(sa, {.gid = sa.gid()});
    if (!own_records)
        findings.add_missing("ServiceRecords", own_records.error().text);
    else if (own_records->records.empty())
        findings.add_ok("ServiceRecords", "supported; this port has no record");
    else
        findings.add_ok("ServiceRecords", "supported; this port has a record");
}

// Checks that the SA answers, by a question for its ClassPortInfo (IBA 13.4.8.1), which every SA must support. If the
// SA answers, also checks that it supports ServiceRecords.
void check_sa(findings& findings, const std::string& hca, int port)
{
    constexpr uint16_t class_port_info = 0x0001;
    const auto client = umad::open_sa_client(hca, port);
    if (!client) return findings.add_missing("SA", client.error().text);
    umad::sa_client& sa = **client;
    const auto start = std::chrono::steady_clock::now();
    const auto answers = sa.ask({umad::make_sa_request(MAD_METHOD_GET, class_port_info, 0, nullptr, 0)});
    const std::chrono::duration<double, std::milli> duration = std::chrono::steady_clock::now() - start;
    if (!answers) return findings.add_missing("SA", answers.error().text);
    if (!answers->front()) return findings.add_missing("SA", sa.silence().text);
    findings.add_ok("SA", fmt::format("the SA at LID {} answers after {:.1f} ms", sa.sm_lid(), duration.count()));
    check_service_records(findings, sa);
}

// Checks libibumad and all ports. Checks the SA through the first port that is active and that this user may use.
void check_fabric(findings& findings)
{
    const auto hcas = umad::list_hcas();
    if (!umad::is_available()) return findings.add_missing("libibumad", hcas.error().text);
    findings.add_ok("libibumad", "built in");
    if (!hcas) return findings.add_missing("HCA", hcas.error().text);
    bool is_sa_checked = false;
    for (const umad::hca_listing& hca : *hcas) {
        for (const umad::port_listing& port : hca.ports) {
            const bool is_active = check_port(findings, hca.name, port);
            if (!is_active || is_sa_checked) continue;
            is_sa_checked = true;
            check_sa(findings, hca.name, port.number);
        }
    }
    if (!is_sa_checked) findings.add_missing("SA", "cannot be asked before a port is active: see the ports above");
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
    if (config && config->fabric.is_real) check_fabric(findings);
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
