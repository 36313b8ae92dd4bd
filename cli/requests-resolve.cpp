// Resolution in both directions.

#include "cli/requests.h"
#include "host/world/resolution.h"
#include "host/world/text.h"

namespace cli
{

namespace
{

const char* name_of(const world::resolution& answer, world::ask how)
{
    switch (answer.status) {
    case ibat_stat_ok:
        return "ok";
    case ibat_stat_timeout:
        return "timed out";
    case ibat_stat_not_found:
        return "not found";
    default:
        return how == world::ask::cache_only ? "not cached" : "failed";
    }
}

// Who said so; a request that came to nothing has no source.
json source_of(const world::resolution& answer)
{
    if (answer.status != ibat_stat_ok && answer.status != ibat_stat_not_found) return nullptr;
    return answer.from_cache ? "cache" : "SA";
}

// Asks the SA about an answer of the cache, and says in `result` whether the two agree: true, false, or null when the
// SA could not be asked.
void verify(kernel::machine& machine, const world::resolution& cached, json& result)
{
    const world::resolution sure = resolve_address(machine, cached.ip, world::ask::sa_only);
    const bool is_answer = sure.status == ibat_stat_ok || sure.status == ibat_stat_not_found;
    const bool agrees = sure.status == cached.status && (sure.status != ibat_stat_ok || sure.gid == cached.gid);
    result["verified"] = is_answer ? json(agrees) : json();
    result["sa"] = sure.status == ibat_stat_ok ? world::format_gid(sure.gid) : sure.why;
}

json shown(kernel::machine& machine, const json& request, const world::resolution& answer, world::ask how)
{
    json result = {{"status", name_of(answer, how)},
                   {"source", source_of(answer)},
                   {"microseconds", answer.took_nanoseconds / 1000}};
    if (answer.status == ibat_stat_ok) {
        result["address"] = world::format_ipv4(answer.ip);
        result["gid"] = world::format_gid(answer.gid);
    } else {
        result["reason"] = answer.why;
    }
    if (request.value("verify", false) && result["source"] == "cache") verify(machine, answer, result);
    return result;
}

world::ask how_to_ask(const json& request)
{
    return request.value("cached", false) ? world::ask::cache_only : world::ask::usual;
}

} // namespace

json answer_resolve(site& at, const json& request)
{
    kernel::machine& machine = at.host_named(request.value("host", "")).machine();
    const world::ask how = how_to_ask(request);
    const world::resolution answer = resolve_address(machine, address_of(request.at("address")), how);
    json result = shown(machine, request, answer, how);
    if (answer.status == ibat_stat_ok) result["found"] = result["gid"];
    return result;
}

json answer_reverse(site& at, const json& request)
{
    kernel::machine& machine = at.host_named(request.value("host", "")).machine();
    const world::ask how = how_to_ask(request);
    const std::string asked = request.at("gid");
    const auto gid = world::parse_gid(asked);
    if (!gid)
        throw failure(exit_usage,
                      quoted(asked) + " is no GID: write 0x and up to 32 hexadecimal digits, or as in fe80::1:2:3:4");
    const world::resolution answer = resolve_gid(machine, *gid, how);
    json result = shown(machine, request, answer, how);
    if (answer.status == ibat_stat_ok) result["found"] = result["address"];
    return result;
}

} // namespace cli
