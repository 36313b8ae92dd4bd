#include "cli/service/requests.h"

#include <cstring>
#include <map>
#include <set>

#include "cli/service/registration.h"
#include "cli/service/requests-fabric.h"
#include "console/control-commands.h"
#include "console/failure.h"
#include "console/gids.h"
#include "console/identity.h"
#include "host/exec/print-capture.h"
#include "host/stack/registry.h"
#include "kernel/errno.h"

namespace cli
{

namespace
{

constexpr const char* ats_registry_key = "dorvex/modules/ats";
constexpr const char* control_file = "dorvex/ats/control";
constexpr int highest_trace_level = 5;

world::host& host_of(running_hosts& hosts, const json& request)
{
    return hosts.named(request.value("host", ""));
}

console::failure not_loaded(const kernel::machine& machine)
{
    return {console::exit_failed, "ats is not loaded on " + machine.name()};
}

// Writes one command to the control file, and returns what the module printed about it.
json control(running_hosts& hosts, const json& request)
{
    kernel::machine& machine = host_of(hosts, request).machine();
    const std::string command = request.at("command").get<std::string>() + "\n";
    json result;
    machine.enter("control", [&] {
        exec::print_capture capture(exec::print_capture::also_log);
        const int written = machine.proc.write(control_file, command);
        if (written == -EK_NOENT) throw not_loaded(machine);
        if (written < 0)
            throw console::failure(console::exit_failed, "ats on " + machine.name() +
                                                             " did not take the command: " + std::strerror(-written));
        result = {{"output", capture.text()}, {"failed", console::is_complaint(capture.text())}};
    });
    return result;
}

json set_trace(running_hosts& hosts, const json& request)
{
    const int level = request.at("level");
    if (level < 0 || level > highest_trace_level)
        throw console::failure(console::exit_usage, "a trace level is a number from 0 (nothing) to 5 (everything)");
    const std::string only = request.value("host", "");
    if (!only.empty()) hosts.named(only);
    for (const auto& host : hosts.all())
        if (only.empty() || host->name() == only)
            host->machine().enter(
                "trace", [&] { host->machine().get<stack::registry>().set(ats_registry_key, "debug-level", level); });
    return done("ats traces at level " + std::to_string(level) + (only.empty() ? "." : " on " + only + "."));
}

// Calls an identity function that ats exports. Its module stays loaded for the call. Returns whether it was carried out
// on every HCA; the new identity is stored even if not.
template <class argument_t>
bool set_identity(kernel::machine& machine, const char* exported, argument_t argument)
{
    bool is_done = false;
    machine.enter(exported, [&] {
        const kernel::held_symbol symbol(machine.modules, "ats", exported);
        if (!symbol) throw not_loaded(machine);
        auto* const set = symbol.as<int32_t (*)(argument_t)>();
        is_done = set(argument) == 0;
    });
    return is_done;
}

// Gives an order that changes the registered record, and waits until the SA has confirmed the new one unless the
// request says "no_wait". Throws a failure with the reason when it is not confirmed.
void change_record(world::host& host, const json& request, const confirmation::is_new_record_t& is_new_record,
                   const std::function<bool()>& order)
{
    constexpr const char* see_the_log = "'ats log --level 1' says why";
    if (request.value("no_wait", false)) {
        if (!order())
            throw console::failure(console::exit_failed,
                                   std::string("stored, but not registered on every HCA: ") + see_the_log);
        return;
    }
    confirmation confirmation(host, is_new_record);
    const bool is_done = order();
    ats::result<> confirmed = confirmation.wait();
    if (confirmed && !is_done) confirmed = ats::fail(see_the_log);
    if (!confirmed)
        throw console::failure(console::exit_failed, "stored, not confirmed by the SA: " + confirmed.error().text);
}

json set_name(running_hosts& hosts, const json& request)
{
    const std::string name = request.at("name");
    if (!console::is_host_name(name))
        throw console::failure(console::exit_usage,
                               console::quote(name) + " cannot be a host name: take " + console::host_name_rule);
    world::host& host = host_of(hosts, request);
    change_record(
        host, request, [&](const records::host_record& record) { return record.host_name == name; },
        [&] { return set_identity(host.machine(), "ats_sa_set_hostname", name.c_str()); });
    return done(host.name() + " is now called " + name + ".");
}

// The warning that the embedded SA holds a record of another host with that address; "" when it does not.
std::string warning_of_another_owner(running_hosts& hosts, world::host& host, const std::string& address)
{
    if (hosts.is_real()) return "";
    std::set<std::string> own_gids;
    for (fabric::hca* hca : host.machine().hcas())
        for (int port = 1; port <= hca->port_count(); ++port)
            for (const fabric::gid_bytes& gid : hca->read_port(port).gids) own_gids.insert(embedded::text_of(gid));
    for (const embedded::service_record_view& record : hosts.subnet().service_records())
        if (record.ipv4 == address && !own_gids.contains(record.gid))
            return console::shared_address_warning(host.name(), record.host_name, address);
    return "";
}

json set_address(running_hosts& hosts, const json& request)
{
    const std::string address = request.at("address");
    const uint32_t ip = console::value_or_throw(console::host_address_of(address));
    world::host& host = host_of(hosts, request);
    const std::string warning = warning_of_another_owner(hosts, host, address);
    change_record(
        host, request, [&](const records::host_record& record) { return record.address == ip; },
        [&] { return set_identity(host.machine(), "ats_sa_set_ip_addrs", ip); });
    json answer = done(host.name() + " now has the address " + address + ".");
    if (!warning.empty()) answer["warning"] = warning;
    return answer;
}

// For clients that want to know whether the service is alive.
json answer_ping(running_hosts&, const json&)
{
    return done("alive");
}

} // namespace

json done(const std::string& what)
{
    return {{"done", what}};
}

json answer_request(running_hosts& hosts, const json& request)
{
    static const std::map<std::string, json (*)(running_hosts&, const json&)> requests = {
        {"status", answer_status}, {"resolve", answer_resolve},  {"reverse", answer_reverse},
        {"flush", answer_flush},   {"control", control},         {"trace", set_trace},
        {"set-name", set_name},    {"set-address", set_address}, {"link", answer_link},
        {"sa", answer_sa},         {"ping", answer_ping},
    };
    const std::string name = request.value("request", "");
    const auto found = requests.find(name);
    if (found == requests.end())
        throw console::failure(console::exit_usage, "this service does not know the request " + console::quote(name));
    json answer = found->second(hosts, request);
    console::add_gid6(answer);
    return answer;
}

} // namespace cli
