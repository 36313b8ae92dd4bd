#include "cli/service/requests.h"

#include <set>

#include "cli/service/host-orders.h"
#include "console/control-commands.h"
#include "console/errors.h"
#include "console/gids.h"
#include "console/identity.h"
#include "console/log-filter.h"

namespace cli
{

namespace
{

using ats::error_kind;

// With "no_wait": true, an order does not wait until the SA has confirmed the changed record.
completion completion_of(const json& request)
{
    return request.value("no_wait", false) ? completion::sent : completion::confirmed;
}

// Returns a warning if the embedded SA has a record of another host with that address. Otherwise returns "".
std::string warning_of_another_owner(running_hosts& hosts, world::host& host, const std::string& address)
{
    const ats::result<embedded::subnet*> subnet = hosts.subnet();
    if (!subnet) return ""; // an order does not ask a real SA for other records
    std::set<std::string> own_gids;
    for (fabric::hca* hca : host.machine().hcas())
        for (int port = 1; port <= hca->port_count(); ++port)
            for (const fabric::gid_bytes& gid : hca->read_port(port).gids) own_gids.insert(embedded::text_of(gid));
    for (const embedded::service_record_view& record : (*subnet)->service_records())
        if (record.ipv4 == address && !own_gids.contains(record.gid))
            return console::shared_address_warning(host.name(), record.host_name, address);
    return "";
}

} // namespace

json done(const std::string& sentence)
{
    return {{"done", sentence}};
}

ats::result<int> integer_of(const json& request, const char* key, unsigned least, unsigned most, int missing_value)
{
    const auto member = request.find(key);
    if (member == request.end()) return missing_value;
    if (member->is_number_unsigned()) {
        const auto value = member->get<uint64_t>();
        if (value >= least && value <= most) return static_cast<int>(value);
    }
    return ats::fail(error_kind::invalid, console::quote(key) + " is an integer from " + std::to_string(least) +
                                              " to " + std::to_string(most));
}

ats::result<int> trace_level_of(const json& request)
{
    return integer_of(request, "level", 0, console::trace_level_everything, console::trace_level_everything);
}

ats::result<world::host*> find_host(running_hosts& hosts, const json& request)
{
    return hosts.find(request.value("host", ""));
}

ats::result<json> answer_control(running_hosts& hosts, const json& request)
{
    const ats::result<world::host*> host = find_host(hosts, request);
    if (!host) return ats::pass_on(host);
    const ats::result<std::string> output = write_control(**host, request.at("command"));
    if (!output) return ats::pass_on(output);
    return json{{"output", *output}, {"failed", console::is_complaint(*output)}};
}

ats::result<json> answer_trace(running_hosts& hosts, const json& request)
{
    if (!request.contains("level"))
        return ats::fail(error_kind::invalid, "the request is malformed: 'level' is missing");
    const ats::result<int> level = trace_level_of(request);
    if (!level) return ats::pass_on(level);
    const std::string done_text = "ats traces at level " + std::to_string(*level);
    const std::string name = request.value("host", "");
    if (name.empty()) {
        for (const auto& host : hosts.all()) set_trace_level(*host, *level);
        return done(done_text + ".");
    }
    const ats::result<world::host*> host = hosts.find(name);
    if (!host) return ats::pass_on(host);
    set_trace_level(**host, *level);
    return done(done_text + " on " + name + ".");
}

ats::result<json> answer_set_name(running_hosts& hosts, const json& request)
{
    const std::string name = request.at("name");
    if (!console::is_host_name(name))
        return ats::fail(error_kind::invalid,
                         console::quote(name) + " cannot be a host name: take " + console::host_name_rule);
    const ats::result<world::host*> host = find_host(hosts, request);
    if (!host) return ats::pass_on(host);
    const ats::result<> result = set_name(**host, name, completion_of(request));
    if (!result) return ats::pass_on(result);
    return done((*host)->name() + " is now called " + name + ".");
}

ats::result<json> answer_set_address(running_hosts& hosts, const json& request)
{
    const std::string address = request.at("address");
    const ats::result<uint32_t> ip = console::host_address_of(address);
    if (!ip) return ats::pass_on(ip);
    const ats::result<world::host*> host = find_host(hosts, request);
    if (!host) return ats::pass_on(host);
    const std::string warning = warning_of_another_owner(hosts, **host, address);
    const ats::result<> result = set_address(**host, *ip, completion_of(request));
    if (!result) return ats::pass_on(result);
    json answer = done((*host)->name() + " now has the address " + address + ".");
    if (!warning.empty()) answer["warning"] = warning;
    return answer;
}

} // namespace cli
