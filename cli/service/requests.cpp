#include "cli/service/requests.h"

#include <cstring>
#include <set>

#include "cli/service/registration.h"
#include "console/control-commands.h"
#include "console/errors.h"
#include "console/gids.h"
#include "console/host-plans.h"
#include "console/identity.h"
#include "host/exec/print-capture.h"
#include "host/stack/registry.h"
#include "kernel/errno.h"

namespace cli
{

namespace
{

using ats::error_kind;

tl::unexpected<ats::error> not_loaded(const kernel::machine& machine)
{
    return ats::fail("ats is not loaded on " + machine.name());
}

// {"host", "command"}: writes a command to the control file. Returns the text that the module printed about it.
ats::result<json> control(running_hosts& hosts, const json& request)
{
    const ats::result<world::host*> host = find_host(hosts, request);
    if (!host) return ats::pass_on(host);
    kernel::machine& machine = (*host)->machine();
    const std::string command = request.at("command").get<std::string>() + "\n";
    int written = 0;
    std::string output;
    machine.enter("control", [&] {
        exec::print_capture capture(exec::print_capture::also_log);
        written = machine.proc.write(console::control_file, command);
        output = capture.text();
    });
    if (written == -EK_NOENT) return not_loaded(machine);
    if (written < 0)
        return ats::fail("ats on " + machine.name() + " did not take the command: " + std::strerror(-written));
    return json{{"output", output}, {"failed", console::is_complaint(output)}};
}

void set_trace_level(kernel::machine& machine, int level)
{
    machine.enter("trace",
                  [&] { machine.get<stack::registry>().set(console::registry_key, console::trace_level_name, level); });
}

// {"level", "host"}: sets the trace level of ats on that host, or on all.
ats::result<json> set_trace(running_hosts& hosts, const json& request)
{
    const int level = request.at("level");
    const std::string done_text = "ats traces at level " + std::to_string(level);
    const std::string name = request.value("host", "");
    if (name.empty()) {
        for (const auto& host : hosts.all()) set_trace_level(host->machine(), level);
        return done(done_text + ".");
    }
    const ats::result<world::host*> host = hosts.find(name);
    if (!host) return ats::pass_on(host);
    set_trace_level((*host)->machine(), level);
    return done(done_text + " on " + name + ".");
}

// Calls an identity function that ats exports. Its module stays loaded for the call. Returns false if the new identity
// was stored, but not sent on every HCA.
template <class argument_t>
ats::result<bool> set_identity(kernel::machine& machine, const char* function, argument_t argument)
{
    bool is_loaded = false;
    int32_t status = 0;
    machine.enter(function, [&] {
        const kernel::held_symbol symbol(machine.modules, "ats", function);
        is_loaded = static_cast<bool>(symbol);
        if (is_loaded) status = symbol.as<int32_t (*)(argument_t)>()(argument);
    });
    if (!is_loaded) return not_loaded(machine);
    return status == 0;
}

// Gives an order that changes the registered record. Unless the request says "no_wait", waits until the SA has
// confirmed the new record. Fails with the reason if it does not.
ats::result<> change_record(world::host& host, const json& request, const confirmation::is_new_record_t& is_new_record,
                            const std::function<ats::result<bool>()>& order)
{
    constexpr const char* see_the_log = "'ats log --level 1' says why";
    if (request.value("no_wait", false)) {
        const ats::result<bool> ordered = order();
        if (!ordered) return ats::pass_on(ordered);
        if (*ordered) return {};
        return ats::fail(std::string("stored, but not registered on every HCA: ") + see_the_log);
    }
    confirmation confirmation(host, is_new_record);
    const ats::result<bool> ordered = order();
    if (!ordered) return ats::pass_on(ordered);
    const ats::result<> confirmed = confirmation.wait();
    if (confirmed && *ordered) return {};
    return ats::fail("stored, not confirmed by the SA: " + (confirmed ? see_the_log : confirmed.error().text));
}

// {"name", "host", "no_wait"}: changes the registered name of a host.
ats::result<json> set_name(running_hosts& hosts, const json& request)
{
    const std::string name = request.at("name");
    if (!console::is_host_name(name))
        return ats::fail(error_kind::invalid,
                         console::quote(name) + " cannot be a host name: take " + console::host_name_rule);
    const ats::result<world::host*> host = find_host(hosts, request);
    if (!host) return ats::pass_on(host);
    const ats::result<> changed = change_record(
        **host, request, [&](const records::host_record& record) { return record.host_name == name; },
        [&] { return set_identity((*host)->machine(), "ats_sa_set_hostname", name.c_str()); });
    if (!changed) return ats::pass_on(changed);
    return done((*host)->name() + " is now called " + name + ".");
}

// A warning if the embedded SA holds a record of another host with that address; else "".
std::string warning_of_another_owner(running_hosts& hosts, world::host& host, const std::string& address)
{
    const ats::result<embedded::subnet*> subnet = hosts.subnet();
    if (!subnet) return ""; // only the embedded SA can be searched here
    std::set<std::string> own_gids;
    for (fabric::hca* hca : host.machine().hcas())
        for (int port = 1; port <= hca->port_count(); ++port)
            for (const fabric::gid_bytes& gid : hca->read_port(port).gids) own_gids.insert(embedded::text_of(gid));
    for (const embedded::service_record_view& record : (*subnet)->service_records())
        if (record.ipv4 == address && !own_gids.contains(record.gid))
            return console::shared_address_warning(host.name(), record.host_name, address);
    return "";
}

// {"address", "host", "no_wait"}: changes the registered address of a host.
ats::result<json> set_address(running_hosts& hosts, const json& request)
{
    const std::string address = request.at("address");
    const ats::result<uint32_t> ip = console::host_address_of(address);
    if (!ip) return ats::pass_on(ip);
    const ats::result<world::host*> host = find_host(hosts, request);
    if (!host) return ats::pass_on(host);
    const std::string warning = warning_of_another_owner(hosts, **host, address);
    const ats::result<> changed = change_record(
        **host, request, [&](const records::host_record& record) { return record.address == *ip; },
        [&] { return set_identity((*host)->machine(), "ats_sa_set_ip_addrs", *ip); });
    if (!changed) return ats::pass_on(changed);
    json answer = done((*host)->name() + " now has the address " + address + ".");
    if (!warning.empty()) answer["warning"] = warning;
    return answer;
}

constexpr struct {
    const char* name;
    ats::result<json> (*answer)(running_hosts&, const json&);
} requests[] = {
    {"status", answer_status}, {"resolve", answer_resolve}, {"reverse", answer_reverse}, {"flush", answer_flush},
    {"control", control},      {"trace", set_trace},        {"set-name", set_name},      {"set-address", set_address},
    {"link", answer_link},     {"sa", answer_sa},
};

} // namespace

json done(const std::string& sentence)
{
    return {{"done", sentence}};
}

ats::result<world::host*> find_host(running_hosts& hosts, const json& request)
{
    return hosts.find(request.value("host", ""));
}

ats::result<json> answer_request(running_hosts& hosts, const json& request)
{
    const std::string name = request.value("request", "");
    for (const auto& entry : requests) {
        if (name != entry.name) continue;
        ats::result<json> answer = entry.answer(hosts, request);
        if (answer) console::add_gid6(*answer);
        return answer;
    }
    return ats::fail(error_kind::invalid, "this service does not know the request " + console::quote(name));
}

} // namespace cli
