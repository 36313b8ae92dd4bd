// Answers requests for the status of hosts. The status comes from /proc files, functions that the modules publish, the
// registry, the ports of the fabric, and the registrations (registration.h).

#include <map>

#include "cli/service/registration.h"
#include "cli/service/requests.h"
#include "console/control-commands.h"
#include "console/control-report.h"
#include "console/host-plans.h"
#include "host/exec/print-capture.h"
#include "host/peers/ibat-exports.h"
#include "host/stack/registry.h"
#include "host/world/published.h"
#include "host/world/text.h"
#include "kernel/proc.h"
#include "kernel/time.h"

namespace cli
{

namespace
{

json cache_entry(const ibat_cache_entry_t& entry)
{
    const char* kind = entry.is_negative ? "negative" : "learned";
    if (entry.is_static) kind = "own";
    return {{"address", world::format_ipv4(entry.ip)},
            {"gid", entry.is_negative ? json() : json(world::format_gid(entry.gid))},
            {"kind", kind},
            {"age_seconds", entry.age_ticks / HZ},
            {"expires_seconds", entry.is_static ? json() : json(entry.expires_ticks / HZ)}};
}

// Returns null if IBAT is not loaded.
json ibat_status(kernel::machine& machine)
{
    const world::published<ibat_cache_list_fn_t> list(machine, "ibat_cache_list_fn");
    const world::published<ibat_counters_fn_t> read_counters(machine, "ibat_counters_fn");
    if (!list || !read_counters) return nullptr;

    std::vector<ibat_cache_entry_t> entries(static_cast<size_t>((*list)(nullptr, 0)));
    const int32_t count = (*list)(entries.data(), static_cast<int32_t>(entries.size())); // the cache may have changed
    entries.resize(std::min(entries.size(), static_cast<size_t>(count)));
    json cache = json::array();
    for (const ibat_cache_entry_t& entry : entries) cache.push_back(cache_entry(entry));

    ibat_counters_t counters;
    (*read_counters)(&counters);
    return {{"cache", cache},
            {"counters",
             {{"lookups", counters.lookups},
              {"hits", counters.hits},
              {"misses", counters.misses},
              {"requests", counters.requests},
              {"retries", counters.retries},
              {"answers", counters.answers},
              {"negative_answers", counters.negative_answers},
              {"timeouts", counters.timeouts},
              {"unsolicited", counters.unsolicited},
              {"pending", counters.pending}}}};
}

// Adds "link", the state of the link, to each port. The state comes from the fabric, because ats does not report it.
void add_links(const kernel::machine& machine, json& hcas)
{
    std::map<std::pair<std::string, int>, const char*> links;
    for (fabric::hca* hca : machine.hcas())
        for (int port = 1; port <= hca->port_count(); ++port)
            links[{hca->name(), port}] = hca->read_port(port).state == fabric::link_state::active ? "up" : "down";
    for (json& hca : hcas)
        for (json& port : hca["ports"]) {
            const auto link = links.find({hca["name"], port["port"]});
            port["link"] = link != links.end() ? json(link->second) : json();
        }
}

json host_status(world::host& host)
{
    kernel::machine& machine = host.machine();
    json status = {
        {"name", host.name()}, {"version", "ats is not loaded"}, {"trace", nullptr}, {"hcas", json::array()}};
    machine.enter("status", [&] {
        std::string version;
        if (machine.proc.read(console::version_file, 0, PROC_PAGE_SIZE, &version) > 0)
            status["version"] = version.substr(0, version.find('\n'));
        intptr_t level = 0;
        if (machine.get<stack::registry>().get(console::registry_key, console::trace_level_name, &level))
            status["trace"] = level;

        exec::print_capture capture(exec::print_capture::instead_of_log);
        std::string empty;
        if (machine.proc.read(console::control_file, 0, PROC_PAGE_SIZE, &empty) >= 0)
            status.update(console::parse_control_report(capture.text()));
        if (json ibat = ibat_status(machine); !ibat.is_null()) status["ibat"] = std::move(ibat);
    });
    add_links(machine, status["hcas"]);
    status["registrations"] = registrations_of(host);
    return status;
}

} // namespace

ats::result<json> answer_status(running_hosts& hosts, const json& request)
{
    const std::string name = request.value("host", "");
    json statuses = json::array();
    if (name.empty()) {
        for (const auto& host : hosts.all()) statuses.push_back(host_status(*host));
    } else {
        const ats::result<world::host*> host = hosts.find(name);
        if (!host) return ats::pass_on(host);
        statuses.push_back(host_status(**host));
    }
    return json{{"fabric", hosts.is_real() ? "umad" : "embedded"},
                {"uptime_seconds", hosts.uptime().count()},
                {"hosts", statuses}};
}

} // namespace cli
