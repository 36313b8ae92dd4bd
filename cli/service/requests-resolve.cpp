// Resolution in both directions.

#include "cli/service/requests.h"
#include "console/failure.h"
#include "console/gids.h"
#include "console/identity.h"
#include "host/peers/ibat-exports.h"
#include "host/world/published.h"
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

json shown(const world::resolution& answer, world::ask how)
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
    return result;
}

bool is_answer(const world::resolution& resolved)
{
    return resolved.status == ibat_stat_ok || resolved.status == ibat_stat_not_found;
}

bool agree(const world::resolution& one, const world::resolution& other)
{
    return one.status == other.status && (one.status != ibat_stat_ok || (one.ip == other.ip && one.gid == other.gid));
}

bool must_verify(const json& request, const json& result)
{
    return request.value("verify", false) && result["source"] == "cache";
}

// Adds to `result`, which shows what the cache said, whether the SA agrees. Where it does not, its answer takes the
// place of the cache's, whose `key` moves to "cached"; `is_corrected` says whether the cache has let go of it.
void compare(const world::resolution& cached, const world::resolution& sure, const char* key, bool is_corrected,
             json& result)
{
    result["verified"] = is_answer(sure) ? json(agree(cached, sure)) : json();
    if (!is_answer(sure)) result["unverified_reason"] = sure.why;
    if (result["verified"] != false) return;
    const json said = result.value(key, json());
    result = shown(sure, world::ask::sa_only);
    result.update({{"verified", false}, {"source", "SA"}, {"cached", said}, {"corrected", is_corrected}});
}

// What the SA says of a GID that the cache knows. The provider of UCM looks into the cache first: it is asked when the
// cache, told of the SA's answer about the address, has let go of the GID.
world::resolution ask_sa_for(kernel::machine& machine, const world::resolution& cached)
{
    world::resolution sure = resolve_address(machine, cached.ip, world::ask::sa_only);
    if (!is_answer(sure) || agree(cached, sure)) return sure;
    const world::resolution by_gid = resolve_gid(machine, cached.gid, world::ask::usual);
    if (!by_gid.from_cache) return by_gid;
    if (sure.status == ibat_stat_ok) sure.why = "the SA names another GID for " + world::format_ipv4(cached.ip);
    sure.status = ibat_stat_not_found;
    return sure;
}

world::ask how_to_ask(const json& request)
{
    return request.value("cached", false) ? world::ask::cache_only : world::ask::usual;
}

} // namespace

json answer_resolve(running_hosts& hosts, const json& request)
{
    if (request.contains("name")) return answer_resolve_name(hosts, request);
    kernel::machine& machine = hosts.named(request.value("host", "")).machine();
    const world::ask how = how_to_ask(request);
    const world::resolution answer =
        resolve_address(machine, console::value_or_throw(console::address_of(request.at("address"))), how);
    json result = shown(answer, how);
    if (must_verify(request, result)) {
        const world::resolution sure = resolve_address(machine, answer.ip, world::ask::sa_only);
        const bool is_corrected = !agree(answer, resolve_address(machine, answer.ip, world::ask::cache_only));
        compare(answer, sure, "gid", is_corrected, result);
    }
    if (result["status"] == "ok") result["found"] = result["gid"];
    return result;
}

json answer_reverse(running_hosts& hosts, const json& request)
{
    kernel::machine& machine = hosts.named(request.value("host", "")).machine();
    const world::ask how = how_to_ask(request);
    const kq_gid_t gid = console::value_or_throw(console::gid_of(request.at("gid")));
    const world::resolution answer = resolve_gid(machine, gid, how);
    json result = shown(answer, how);
    if (must_verify(request, result)) {
        const world::resolution sure = ask_sa_for(machine, answer);
        const bool is_corrected = !agree(answer, resolve_gid(machine, gid, world::ask::cache_only));
        compare(answer, sure, "address", is_corrected, result);
    }
    if (result["status"] == "ok") result["found"] = result["address"];
    return result;
}

json answer_flush(running_hosts& hosts, const json& request)
{
    kernel::machine& machine = hosts.named(request.value("host", "")).machine();
    const std::string what = request.value("what", "");
    const auto gid = world::parse_gid(what);
    const uint32_t ip = what.empty() || gid ? 0 : console::value_or_throw(console::address_of(what));
    const world::published<ibat_flush_fn_t> flush(machine, "ibat_flush_fn");
    const world::published<ibat_forget_fn_t> forget(machine, "ibat_forget_fn");
    if (!flush || !forget) throw console::failure(console::exit_failed, "ibat is not loaded on " + machine.name());
    int32_t dropped = 0;
    machine.enter("flush", [&] { dropped = what.empty() ? (*flush)() : (*forget)(ip, gid ? &*gid : nullptr); });
    if (!what.empty() && dropped == 0)
        throw console::failure(console::exit_failed,
                               "the cache of " + machine.name() + " has no entry of " + what +
                                   " that it could forget: 'ats status' shows it; its own mapping stays");
    json result = done("The cache of " + machine.name() + " forgot " + std::to_string(dropped) +
                       (dropped == 1 ? " entry." : " entries."));
    result["dropped"] = dropped;
    return result;
}

} // namespace cli
