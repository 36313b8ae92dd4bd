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

// The parts of the configuration that change only with a restart.
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

// The parts of a host's configuration that change only with a restart.
constexpr struct {
    const char* name;
    bool (*is_same)(const host_config&, const host_config&);
} fixed_host_parts[] = {
    {"[[host.hca]]", are_same_hcas},
    {"log_kib", [](const host_config& left, const host_config& right) { return left.log_bytes == right.log_bytes; }},
    {"a module parameter",
     [](const host_config& left, const host_config& right) { return left.parameters == right.parameters; }},
};

// Returns a host of the file for each running host: the host with the same name. If the file has no such host, returns
// the next host of the file whose name is new; change_host() then renames the running host. Returns null if no new name
// is left.
std::vector<const host_config*> counterparts_of(const world_config& current, const world_config& file)
{
    const auto find_host = [](const std::vector<host_config>& hosts, const std::string& name) -> const host_config* {
        const auto position =
            std::ranges::find(hosts, name, [](const host_config& host) { return host.settings.name; });
        return position == hosts.end() ? nullptr : &*position;
    };
    std::vector<const host_config*> new_names;
    for (const host_config& host : file.hosts)
        if (!find_host(current.hosts, host.settings.name)) new_names.push_back(&host);
    std::vector<const host_config*> counterparts;
    auto next = new_names.begin();
    for (const host_config& host : current.hosts) {
        const host_config* counterpart = find_host(file.hosts, host.settings.name);
        if (!counterpart && next != new_names.end()) counterpart = *next++;
        counterparts.push_back(counterpart);
    }
    return counterparts;
}

// Executes one reload; see reload().
class reload_run
{
  public:
    explicit reload_run(const reload_calls& calls) : calls_(calls) {}

    // Calls set_rules() even if nothing has changed, because an earlier call may have failed to change the permissions
    // of a socket's file.
    void change_rules(world_config& current, const world_config& file)
    {
        const ats::result<> result = calls_.set_rules(file.access, file.limits);
        if (current.access != file.access || !result) report(result, "[access] has changed");
        if (current.limits != file.limits) say("[limits] have changed");
        if (result) current.access = file.access;
        current.limits = file.limits;
    }

    void change_host(world::host& host, host_config& config, const host_settings& file)
    {
        host_settings& current = config.settings;
        change(current.trace, file.trace, host, "traces at level " + std::to_string(file.trace),
               [&]() -> ats::result<> {
                   set_trace_level(host, file.trace);
                   return {};
               });
        change(current.verification, file.verification, host, text_of(file.verification),
               [&] { return set_verification(host, file.verification); });
        change(current.spread_seconds, file.spread_seconds, host,
               "spreads its registrations over " + std::to_string(file.spread_seconds) + " s", [&]() -> ats::result<> {
                   set_spread(host, file.spread_seconds);
                   return {};
               });
        const auto order_address = [&]() -> ats::result<> {
            const ats::result<uint32_t> ip = console::host_address_of(file.address);
            return ip ? set_address(host, *ip, completion::confirmed) : ats::pass_on(ip);
        };
        const std::string address_text = "has the address " + file.address;
        change(current.address, file.address, host, address_text, order_address, &config.is_address_unsure);
        change(
            current.name, file.name, host, "is called " + file.name,
            [&] { return set_name(host, file.name, completion::confirmed); }, &config.is_name_unsure);
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

    void report(const ats::result<>& result, const std::string& text, const std::string& host = "")
    {
        say(result ? text : text + ", which failed: " + result.error().text, host);
    }

    // Executes `order` if the setting differs from the file, or if an earlier order has failed. `is_unsure` is null if
    // an order that fails leaves the host as it was.
    template <class setting_t>
    void change(setting_t& current, const setting_t& file, world::host& host, const std::string& text,
                const std::function<ats::result<>()>& order, bool* is_unsure = nullptr)
    {
        const bool is_same = current == file && (!is_unsure || !*is_unsure);
        if (is_same || !calls_.may_go_on()) return;
        const ats::result<> result = order();
        report(result, host.name() + " now " + text, host.name());
        if (is_unsure) *is_unsure = !result;
        if (result) current = file;
    }

    const reload_calls& calls_;
    size_t lines_ = 0;
};

} // namespace

void reload(running_hosts& hosts, world_config& current, const world_config& file, const reload_calls& calls)
{
    assert(hosts.all().size() == current.hosts.size());
    reload_run reload_run(calls);
    for (const auto& part : fixed_parts)
        if (!part.is_same(current, file)) reload_run.refuse(part.name);
    reload_run.change_rules(current, file);
    const std::vector<const host_config*> counterparts = counterparts_of(current, file);
    for (size_t i = 0; i < counterparts.size(); ++i) {
        if (!counterparts[i]) continue;
        world::host& host = *hosts.all()[i];
        for (const auto& part : fixed_host_parts)
            if (!part.is_same(current.hosts[i], *counterparts[i])) reload_run.refuse(part.name, host);
        reload_run.change_host(host, current.hosts[i], counterparts[i]->settings);
    }
    reload_run.end();
}

} // namespace cli
