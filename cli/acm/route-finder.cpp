#include "cli/acm/route-finder.h"

#include <algorithm>
#include <bit>
#include <future>

#include "cli/service/requests.h"
#include "host/exec/shortage.h"
#include "host/world/text.h"

namespace acm
{

namespace
{

constexpr uint8_t exactly = 2 << 6; // the selector "exactly this value" (IBA 15.2.5.16)

path_record wire_record_of(const world::path_record& path)
{
    path_record record{};
    record.dgid = to_wire(path.dgid);
    record.sgid = to_wire(path.sgid);
    record.dlid = to_wire(path.dlid);
    record.slid = to_wire(path.slid);
    record.flow_label_hop_limit = to_wire(path.flow_label << 8 | path.hop_limit);
    record.traffic_class = path.traffic_class;
    record.reversible_path_count = static_cast<uint8_t>((path.is_reversible ? 0x80 : 0) | 1);
    record.p_key = to_wire(path.p_key);
    record.qos_class_sl = to_wire(uint16_t{path.sl});
    record.mtu = exactly | path.mtu;
    record.rate = exactly | path.rate;
    record.packet_lifetime = exactly | path.packet_lifetime;
    record.preference = path.preference;
    return record;
}

// Returns true if the path has the GIDs, the LIDs and the P_Key in the program's request. Ignores those that are 0 in
// the request.
bool completes(const world::path_record& path, const path_record& request)
{
    const kq_gid_t any_gid{};
    const auto agrees = [](const auto& field, const auto& unset, const auto& value) {
        return field == unset || field == value;
    };
    return agrees(from_wire(request.dgid), any_gid, path.dgid) && agrees(from_wire(request.sgid), any_gid, path.sgid) &&
           agrees(from_wire(request.dlid), 0, path.dlid) && agrees(from_wire(request.slid), 0, path.slid) &&
           agrees(from_wire(request.p_key), 0, path.p_key);
}

status status_of(world::path_status path_status)
{
    switch (path_status) {
    case world::path_status::found:
        return status::success;
    case world::path_status::timed_out:
        return status::timed_out;
    case world::path_status::no_active_port:
        return status::not_connected;
    default:
        return status::no_data;
    }
}

// Returns the address with which the port with this GID is registered. Asks only the cache of the port's host.
std::optional<uint32_t> own_address(kernel::machine& machine, const kq_gid_t& gid)
{
    const std::optional<world::resolution> own = world::answer_from_cache(machine, gid);
    if (!own || own->status != ibat_stat_ok) return std::nullopt;
    return own->ip;
}

std::optional<kq_gid_t> gid_of_port(fabric::hca& hca, int port)
{
    const fabric::port_attributes attributes = hca.read_port(port);
    if (attributes.gids.empty()) return std::nullopt;
    return from_wire(std::bit_cast<wire_gid_t>(attributes.gids.front()));
}

bool has_address(kernel::machine& machine, uint32_t ip)
{
    for (fabric::hca* hca : machine.hcas())
        for (int port = 1; port <= hca->port_count(); ++port)
            if (const auto gid = gid_of_port(*hca, port); gid && own_address(machine, *gid) == ip) return true;
    return false;
}

// The result of a lookup of a host name: its address, or the status for the program.
using named_address = std::variant<uint32_t, status>;

// Asks the SA for the address with which a host name is registered. This may take a second. If several hosts of an
// embedded fabric have the name, returns the address of the one with the lowest GID. Returns no_data only if the SA has
// answered that it holds no record, or several.
named_address address_of_name(cli::running_hosts& hosts, const std::string& name)
{
    const cli::json answer = cli::answer_resolve_name(hosts, name);
    const cli::json matches = answer.value("matches", cli::json::array());
    const bool is_answered = answer.at("status") == "not found" || answer.at("source") == "SA";
    if (matches.empty()) return is_answered ? status::no_data : status::timed_out;
    return *world::parse_ipv4(matches.at(0).at("address"));
}

found_route route_to(const world::path_resolution& resolution, kernel::machine& machine, const resolve_request& request)
{
    found_route result{.is_by_address = resolution.ip != 0, .is_cached = resolution.from_cache};
    result.route.status = status_of(resolution.status);
    if (resolution.status != world::path_status::found) return result;
    if (request.path && !completes(resolution.path, *request.path)) {
        result.route.status = status::no_data;
        return result;
    }
    result.route.path = wire_record_of(resolution.path);
    if (std::holds_alternative<std::monostate>(request.source))
        result.route.source = own_address(machine, resolution.path.sgid);
    return result;
}

} // namespace

route_finder::~route_finder()
{
    std::promise<void> end_promise;
    server_.loop().post([&] {
        life_.reset();
        end_promise.set_value();
    });
    end_promise.get_future().wait();
}

// Returns the host with this name or address. If `source` has neither, returns the first host. Returns null if no host
// has the name or address.
world::host* route_finder::host_of(const path_end& source) const
{
    if (const std::string* name = std::get_if<std::string>(&source)) {
        const ats::result<world::host*> named = hosts_.find(*name);
        return named ? *named : nullptr;
    }
    const uint32_t* ip = std::get_if<uint32_t>(&source);
    for (const auto& host : hosts_.all())
        if (!ip || has_address(host->machine(), *ip)) return host.get();
    return nullptr;
}

void route_finder::find(const resolve_request& request, const cli::queue_place& place, const completion& callback)
{
    const question question{host_of(request.source), request, place, callback};
    if (!question.host) return callback({.route = {.status = status::unknown_source}});
    if (const std::string* name = std::get_if<std::string>(&request.destination)) return find_by_name(question, *name);
    if (const uint32_t* ip = std::get_if<uint32_t>(&request.destination)) return find_path(question, *ip);
    const kq_gid_t gid = from_wire(request.path->dgid);
    // A path can be found by the destination's GID, but not by a LID alone. The empty answer means "no data".
    if (gid == kq_gid_t{}) return callback({});
    find_path(question, gid);
}

// First finds the address of the name, in a worker thread. This asks the SA even if the program allows only cached
// answers, because no cache contains host names. The worker may still wait for the SA when this object is destroyed.
// Therefore it does not use this object, and the loop's thread first checks that the object still exists.
void route_finder::find_by_name(const question& question, const std::string& name)
{
    const auto find_address = [this, life = std::weak_ptr(life_), &server = server_, &hosts = hosts_, question, name] {
        const named_address result = address_of_name(hosts, name);
        if (const status* failure = std::get_if<status>(&result))
            return question.callback({.route = {.status = *failure}, .is_by_address = true});
        server.loop().post([this, life, question, ip = std::get<uint32_t>(result)] {
            if (!life.expired()) find_path(question, ip);
        });
    };
    server_.background().push(question.place, find_address);
}

void route_finder::find_path(const question& question, const world::path_destination& destination)
{
    kernel::machine& machine = question.host->machine();
    const auto pass_answer = [&machine, question](const world::path_resolution& resolution) {
        question.callback(route_to(resolution, machine, question.request));
    };
    if (question.request.is_cache_only)
        return pass_answer(resolve_path(machine, destination, world::lookup_mode::cache_only));
    const cli::lookups::subject subject{destination, true, question.request.is_fresh};
    try {
        server_.lookups_of(machine).ask(question.place, subject, [pass_answer](const cli::lookups::answer& answer) {
            pass_answer(std::get<world::path_resolution>(answer));
        });
    } catch (const exec::shortage&) {
        question.callback({.route = {.status = status::no_memory}});
    }
}

void route_finder::forget(const cli::queue_place& place)
{
    server_.drop(place);
}

std::optional<endpoint> route_finder::endpoint(const endpoint_port& subject) const
{
    unsigned number = 0;
    for (const auto& host : hosts_.all())
        for (fabric::hca* hca : host->machine().hcas()) {
            if (++number != subject.endpoint) continue;
            const auto port = static_cast<int>(subject.port);
            if (port < 1 || port > hca->port_count()) return std::nullopt;
            const fabric::port_attributes attributes = hca->read_port(port);
            acm::endpoint endpoint{.port = static_cast<uint8_t>(port),
                                   .port_count = static_cast<uint8_t>(hca->port_count())};
            if (!attributes.p_keys.empty()) endpoint.p_key = attributes.p_keys.front();
            if (const auto gid = gid_of_port(*hca, port)) {
                endpoint.device_guid = gid->eui64;
                if (const auto ip = own_address(host->machine(), *gid))
                    endpoint.addresses.push_back(world::format_ipv4(*ip));
            }
            endpoint.addresses.push_back(host->name());
            return endpoint;
        }
    return std::nullopt;
}

} // namespace acm
