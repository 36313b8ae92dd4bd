#include "cli/check-fabric.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <vector>

#include <fmt/core.h>

#include "console/identity.h"
#include "console/record-list.h"
#include "host/fabric/umad/sa-client.h"
#include "host/fabric/umad/umad.h"

namespace cli
{

namespace
{

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

void check_service_records(findings& findings, const std::string& path, umad::sa_client& sa)
{
    const auto own_records = console::list_records(sa, {.gid = sa.gid()});
    if (!own_records)
        findings.add_missing("ServiceRecords", path + own_records.error().text);
    else if (own_records->records.empty())
        findings.add_ok("ServiceRecords", path + "supported; this port has no record");
    else
        findings.add_ok("ServiceRecords", path + "supported; this port has a record");
}

// Checks that the SA answers, by a question for its ClassPortInfo (IBA 13.4.8.1), which every SA must support. If the
// SA answers, also checks that it supports ServiceRecords. Each finding begins with `path`, which names the HCA if
// several HCAs are checked.
void check_sa(findings& findings, const std::string& path, const std::string& hca, int port)
{
    constexpr uint16_t class_port_info = 0x0001;
    const auto client = umad::open_sa_client(hca, port);
    if (!client) return findings.add_missing("SA", path + client.error().text);
    umad::sa_client& sa = **client;
    const auto start = std::chrono::steady_clock::now();
    const auto answers = sa.ask({umad::make_sa_request(MAD_METHOD_GET, class_port_info, 0, nullptr, 0)});
    const std::chrono::duration<double, std::milli> duration = std::chrono::steady_clock::now() - start;
    if (!answers) return findings.add_missing("SA", path + answers.error().text);
    if (!answers->front()) return findings.add_missing("SA", path + sa.silence().text);
    findings.add_ok("SA",
                    fmt::format("{}the SA at LID {} answers after {:.1f} ms", path, sa.sm_lid(), duration.count()));
    check_service_records(findings, path, sa);
}

// Returns the HCAs that the host uses: those with `names`, or all if it has no names. A finding reports each name that
// no HCA has, and each HCA that the host does not use.
std::vector<umad::hca_listing> used_hcas(findings& findings, const std::vector<umad::hca_listing>& hcas,
                                         const std::vector<std::string>& names)
{
    if (names.empty()) return hcas;
    std::vector<umad::hca_listing> selection;
    for (const std::string& name : names) {
        auto hca = umad::find_hca(hcas, name);
        if (hca)
            selection.push_back(std::move(*hca));
        else
            findings.add_missing("HCA", hca.error().text);
    }
    for (const umad::hca_listing& hca : hcas)
        if (std::ranges::find(names, hca.name) == names.end())
            findings.add_note(hca.name, "not checked, because the configuration does not use it");
    return selection;
}

// Reports if other hosts cannot find `host` by its address, because it has several HCAs.
void check_hca_count(findings& findings, const host_settings& host, const std::vector<std::string>& hcas)
{
    if (hcas.size() < 2) return;
    const std::string prefix = host.name.empty() ? "" : host.name + ": ";
    findings.add_note("HCAs", prefix + console::several_hcas_warning(hcas, host.address));
}

// Checks the ports of an HCA. Checks the SA through the first port that is active and that this user may use. Returns
// false if there is no such port.
bool check_hca(findings& findings, const std::string& path, const umad::hca_listing& hca)
{
    std::optional<int> active_port;
    for (const umad::port_listing& port : hca.ports)
        if (check_port(findings, hca.name, port) && !active_port) active_port = port.number;
    if (active_port) check_sa(findings, path, hca.name, *active_port);
    return active_port.has_value();
}

// Checks libibumad, and the HCAs that the host uses.
void check_real_fabric(findings& findings, const world_config& config)
{
    const auto hcas = umad::list_hcas();
    if (!umad::is_available()) return findings.add_missing("libibumad", hcas.error().text);
    findings.add_ok("libibumad", "built in");
    if (!hcas) return findings.add_missing("HCA", hcas.error().text);
    const std::vector<umad::hca_listing> selection = used_hcas(findings, *hcas, config.fabric.ports.hcas);
    std::vector<std::string> names;
    bool is_sa_checked = false;
    for (const umad::hca_listing& hca : selection) {
        is_sa_checked |= check_hca(findings, selection.size() > 1 ? hca.name + ": " : "", hca);
        names.push_back(hca.name);
    }
    check_hca_count(findings, config.hosts.front().settings, names);
    if (!is_sa_checked && !selection.empty())
        findings.add_missing("SA", "cannot be asked before a port is active: see the ports above");
}

// Checks the HCAs of the hosts on an embedded fabric.
void check_embedded_hcas(findings& findings, const world_config& config)
{
    for (const host_config& host : config.hosts) {
        std::vector<std::string> names;
        for (const world::hca_plan& hca : host.hcas) names.push_back(hca.name);
        check_hca_count(findings, host.settings, names);
    }
}

} // namespace

void check_fabric(findings& findings, const world_config& config)
{
    if (config.fabric.is_real)
        check_real_fabric(findings, config);
    else
        check_embedded_hcas(findings, config);
}

} // namespace cli
