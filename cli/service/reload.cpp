#include "cli/service/reload.h"

#include <algorithm>
#include <cassert>

#include "cli/service/host-orders.h"
#include "console/identity.h"

namespace cli
{

namespace
{

bool is_same_fabric(const fabric_config& left, const fabric_config& right)
{
    return left.is_real == right.is_real && left.capture == right.capture && left.record == right.record &&
           left.ports.watch_interval_ticks == right.ports.watch_interval_ticks &&
           left.ports.sa_delete_p_key == right.ports.sa_delete_p_key;
}

bool are_same_hcas(const host_config& left, const host_config& right)
{
    return std::ranges::equal(left.hcas, right.hcas, [](const world::hca_plan& one, const world::hca_plan& other) {
        return one.name == other.name && one.ports == other.ports;
    });
}

// The parts of the configuration that only a restart changes.
constexpr struct {
    const char* name;
    bool (*is_same)(const world_config&, const world_config&);
} fixed_parts[] = {
    {"[fabric]",
     [](const world_config& left, const world_config& right) { return is_same_fabric(left.fabric, right.fabric); }},
    {"[acm]", [](const world_config& left, const world_config& right) { return left.acm == right.acm; }},
    {"[metrics]", [](const world_config& left, const world_config& right) { return left.metrics == right.metrics; }},
    {"the number of hosts",
     [](const world_config& left, const world_config& right) { return left.hosts.size() == right.hosts.size(); }},
};

// The parts of a host's configuration that only a restart changes.
constexpr struct {
    const char* name;
    bool (*is_same)(const host_config&, const host_config&);
} fixed_host_parts[] = {
    {"[[host.hca]]", are_same_hcas},
    {"log_kib", [](const host_config& left, const host_config& right) { return left.log_bytes == right.log_bytes; }},
    {"a module parameter",
     [](const host_config& left, const host_config& right) { return left.parameters == right.parameters; }},
};

// Pairs each running host with a host of the file: with the host of the same name, otherwise with the next host whose
// name no running host has.
std::vector<const host_config*> counterparts_of(const world_config& running, const world_config& file)
{
    const auto find_host = [](const std::vector<host_config>& hosts, const std::string& name) -> const host_config* {
        const auto position =
            std::ranges::find(hosts, name, [](const host_config& host) { return host.settings.name; });
        return position == hosts.end() ? nullptr : &*position;
    };
    std::vector<const host_config*> renamed;
    for (const host_config& host : file.hosts)
        if (!find_host(running.hosts, host.settings.name)) renamed.push_back(&host);
    std::vector<const host_config*> counterparts;
    auto next = renamed.begin();
    for (const host_config& host : running.hosts) {
        const host_config* counterpart = find_host(file.hosts, host.settings.name);
        if (!counterpart && next != renamed.end()) counterpart = *next++;
        counterparts.push_back(counterpart);
    }
    return counterparts;
}

// Executes one reload; see reload().
class reloading
{
  public:
    explicit reloading(const reload_calls& calls) : calls_(calls) {}

    // Makes the call even if nothing differs, because an earlier call may have succeeded only in part.
    void change_rules(world_config& running, const world_config& file)
    {
        const ats::result<> changed = calls_.set_rules(file.access, file.limits);
        if (running.access != file.access || !changed) report(changed, "[access] has changed");
        if (running.limits != file.limits) say("[limits] have changed");
        if (changed) running.access = file.access;
        running.limits = file.limits;
    }

    void change_host(world::host& host, host_settings& running, const host_settings& file)
    {
        change(running.trace, file.trace, host, "traces at level " + std::to_string(file.trace),
               [&]() -> ats::result<> {
                   set_trace_level(host, file.trace);
                   return {};
               });
        change(running.verification, file.verification, host, text_of(file.verification),
               [&] { return set_verification(host, file.verification); });
        change(running.address, file.address, host, "has the address " + file.address, [&]() -> ats::result<> {
            const ats::result<uint32_t> ip = console::host_address_of(file.address);
            return ip ? set_address(host, *ip, awaited::confirmed) : ats::pass_on(ip);
        });
        change(running.name, file.name, host, "is called " + file.name,
               [&] { return set_name(host, file.name, awaited::confirmed); });
    }

    void refuse(const std::string& part)
    {
        calls_.print(refusal_of(part), "");
        ++lines_;
    }
    void refuse(const std::string& part, const world::host& host)
    {
        calls_.print(refusal_of(part + " of " + host.name()), host.name());
        ++lines_;
    }

    void end()
    {
        if (lines_ == 0) calls_.print("reloaded: nothing has changed", "");
    }

  private:
    static std::string refusal_of(const std::string& part)
    {
        return "not reloaded: " + part + " has changed in the configuration, which needs a restart";
    }

    static std::string text_of(const verification& verification)
    {
        if (verification.period_seconds == 0) return "does not check its registration any more";
        return "checks its registration every " + std::to_string(verification.period_seconds) + " seconds, by up to " +
               std::to_string(verification.skew_percent) + "% more";
    }

    void say(const std::string& text, const std::string& host = "")
    {
        calls_.print("reloaded: " + text, host);
        ++lines_;
    }

    void report(const ats::result<>& changed, const std::string& text, const std::string& host = "")
    {
        say(changed ? text : text + ", which failed: " + changed.error().text, host);
    }

    template <class setting_t>
    void change(setting_t& running, const setting_t& file, world::host& host, const std::string& text,
                const std::function<ats::result<>()>& order)
    {
        if (running == file || !calls_.may_go_on()) return;
        const ats::result<> changed = order();
        report(changed, host.name() + " now " + text, host.name());
        if (changed) running = file;
    }

    const reload_calls& calls_;
    size_t lines_ = 0;
};

} // namespace

void reload(running_hosts& hosts, world_config& running, const world_config& file, const reload_calls& calls)
{
    assert(hosts.all().size() == running.hosts.size());
    reloading reloading(calls);
    for (const auto& part : fixed_parts)
        if (!part.is_same(running, file)) reloading.refuse(part.name);
    reloading.change_rules(running, file);
    const std::vector<const host_config*> counterparts = counterparts_of(running, file);
    for (size_t i = 0; i < counterparts.size(); ++i) {
        if (!counterparts[i]) continue;
        world::host& host = *hosts.all()[i];
        for (const auto& part : fixed_host_parts)
            if (!part.is_same(running.hosts[i], *counterparts[i])) reloading.refuse(part.name, host);
        reloading.change_host(host, running.hosts[i].settings, counterparts[i]->settings);
    }
    reloading.end();
}

} // namespace cli
