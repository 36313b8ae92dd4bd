// `ats check`: whether this machine can run a host on its real ports, a line for each thing that it takes: what is
// fine, and what to do about what is not.

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "cli/check.h"
#include "cli/client/show.h"
#include "cli/mount/proc-mount.h"
#include "console/failure.h"
#include "console/record-list.h"
#include "console/table.h"
#include "console/usage.h"
#include "host/fabric/umad/umad.h"
#include "host/world/module-folder.h"

namespace cli
{

namespace
{

// `fine` and `missing` speak of what a host needs, `note` of what it can do without.
enum class verdict { fine, missing, note };

class report
{
  public:
    void add(verdict found, const std::string& what, const std::string& text)
    {
        static constexpr const char* words[] = {"ok", "MISSING", "note"};
        rows_.push_back({words[static_cast<int>(found)], what, text});
        is_fit_ = is_fit_ && found != verdict::missing;
    }
    bool is_fit() const { return is_fit_; }
    const std::vector<std::vector<std::string>>& rows() const { return rows_; }

  private:
    std::vector<std::vector<std::string>> rows_;
    bool is_fit_ = true;
};

std::string lid_text(uint16_t lid)
{
    return "LID " + std::to_string(lid);
}

void check_modules(report& to, const std::string& folder)
{
    std::string absent;
    for (const char* module : {"ibat.so", "ucm.so", "ats.so"})
        if (!std::filesystem::exists(folder + "/" + module)) absent += std::string(absent.empty() ? "" : ", ") + module;
    if (absent.empty())
        to.add(verdict::fine, "modules", "all are in " + folder);
    else
        to.add(verdict::missing, "modules", absent + " not found in " + folder + ": name their folder with --modules");
}

// True: the port may be used, and is active.
bool check_port(report& to, const std::string& hca, const umad::port_listing& port)
{
    const std::string called = hca + " port " + std::to_string(port.number);
    if (!umad::is_infiniband(port)) {
        to.add(verdict::note, called, "not InfiniBand, or without a management device: left alone");
        return false;
    }
    if (const auto opened = umad::try_port(hca, port.number); !opened) {
        to.add(verdict::missing, called, opened.error().text);
        return false;
    }
    const std::string usable = port.device + " may be used; ";
    switch (port.state) {
    case fabric::link_state::active:
        to.add(verdict::fine, called,
               usable + "active with " + lid_text(port.lid) + ", the SM at " + lid_text(port.sm_lid));
        return true;
    case fabric::link_state::down:
        to.add(verdict::note, called, usable + "the link is down: check the cable and the switch port");
        return false;
    default:
        to.add(verdict::missing, called,
               usable + "the link is up, but no subnet manager has activated the port: start one "
                        "(opensm) somewhere on the fabric");
        return false;
    }
}

void check_service_records(report& to, umad::sa_client& sa)
{
    const auto own = console::list_records(sa, {.gid = sa.gid()});
    if (!own)
        to.add(verdict::missing, "ServiceRecords", own.error().text);
    else
        to.add(verdict::fine, "ServiceRecords",
               own->records.empty() ? "supported; none of this port" : "supported; one of this port stands");
}

// Asks for ClassPortInfo (IBA 13.4.8.1), which every SA must know.
void check_sa(report& to, const std::string& hca, int port)
{
    const auto opened = umad::open_sa_client(hca, port);
    if (!opened) return to.add(verdict::missing, "SA", opened.error().text);
    umad::sa_client& client = **opened;
    constexpr uint16_t class_port_info = 0x0001;
    const auto begin = std::chrono::steady_clock::now();
    const auto answers = client.ask({umad::make_sa_request(MAD_METHOD_GET, class_port_info, 0, nullptr, 0)});
    if (!answers) return to.add(verdict::missing, "SA", answers.error().text);
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
    if (!answers->front()) return to.add(verdict::missing, "SA", client.silence().text);
    char text[128];
    std::snprintf(text, sizeof text, "the SA at %s answers after %.1f ms", lid_text(client.sm_lid()).c_str(),
                  took.count());
    to.add(verdict::fine, "SA", text);
    check_service_records(to, client);
}

void check_fabric(report& to)
{
    if (!umad::is_available()) return to.add(verdict::missing, "libibumad", umad::list_hcas().error().text);
    to.add(verdict::fine, "libibumad", "built in");
    const auto hcas = umad::list_hcas();
    if (!hcas) return to.add(verdict::missing, "HCA", hcas.error().text);
    bool is_any_active = false;
    for (const umad::hca_listing& hca : *hcas) {
        for (const umad::port_listing& port : hca.ports) {
            if (!check_port(to, hca.name, port) || is_any_active) continue;
            is_any_active = true;
            check_sa(to, hca.name, port.number);
        }
    }
    if (!is_any_active) to.add(verdict::missing, "SA", "cannot be asked: no port is active");
}

void check_fuse(report& to)
{
    const char* const without = "'ats run --mount' will be refused; 'ats log' and 'ats control' do without";
    const int device = proc_mount::is_available() ? open("/dev/fuse", O_RDWR | O_CLOEXEC) : -1;
    if (device >= 0) {
        close(device);
        to.add(verdict::fine, "FUSE", "/dev/fuse may be used");
    } else if (proc_mount::is_available()) {
        to.add(verdict::note, "FUSE", std::string("no use of /dev/fuse ('modprobe fuse', as root): ") + without);
    } else {
        to.add(verdict::note, "FUSE", std::string("not built in (libfuse3-dev): ") + without);
    }
}

void show(const report& found, bool as_json)
{
    if (!as_json) {
        std::cout << console::format_table(found.rows(), 0);
        return;
    }
    json checks = json::array();
    for (const auto& row : found.rows()) checks.push_back({{"verdict", row[0]}, {"what", row[1]}, {"text", row[2]}});
    console::show_json(std::cout, {{"fit", found.is_fit()}, {"checks", checks}});
}

int run_check(const std::string& module_folder, bool as_json)
{
    report findings;
    check_modules(findings, module_folder);
    check_fabric(findings);
    check_fuse(findings);
    show(findings, as_json);
    return findings.is_fit() ? console::exit_ok : console::exit_failed;
}

} // namespace

void add_check(CLI::App& program, ats::result<int>& outcome)
{
    CLI::App* command = program.add_subcommand(
        "check", "Look at this machine: can it run a host on its real ports, and what is missing?");
    auto modules = std::make_shared<std::string>(world::default_module_folder());
    auto as_json = std::make_shared<bool>(false);
    command->add_flag("--json", *as_json, "Print JSON")->option_text(" ");
    console::add_module_folder_option(*command, *modules);
    command->callback(console::command_callback(outcome, [=] { return run_check(*modules, *as_json); }));
}

} // namespace cli
