// Requests that resolve addresses and GIDs, and that empty the cache.

#include <optional>

#include "cli/service/requests.h"
#include "console/errors.h"
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

using ats::error_kind;
using world::lookup_mode;
using world::resolution;

const char* status_text(const resolution& resolution, lookup_mode mode)
{
    switch (resolution.status) {
    case ibat_stat_ok:
        return "ok";
    case ibat_stat_timeout:
        return "timed out";
    case ibat_stat_not_found:
        return "not found";
    default:
        return mode == lookup_mode::cache_only ? "not cached" : "failed";
    }
}

// True if the cache or the SA has answered, with yes or no.
bool is_answer(const resolution& resolution)
{
    return resolution.status == ibat_stat_ok || resolution.status == ibat_stat_not_found;
}

json source_of(const resolution& resolution)
{
    if (!is_answer(resolution)) return nullptr;
    return resolution.from_cache ? "cache" : "SA";
}

json answer_of(const resolution& resolution, lookup_mode mode)
{
    json answer = {{"status", status_text(resolution, mode)},
                   {"source", source_of(resolution)},
                   {"microseconds", resolution.took_nanoseconds / 1000}};
    if (resolution.status == ibat_stat_ok) {
        answer["address"] = world::format_ipv4(resolution.ip);
        answer["gid"] = world::format_gid(resolution.gid);
    } else {
        answer["reason"] = resolution.reason;
    }
    return answer;
}

bool agree(const resolution& one, const resolution& other)
{
    return one.status == other.status && (one.status != ibat_stat_ok || (one.ip == other.ip && one.gid == other.gid));
}

bool must_verify(const json& request, const json& answer)
{
    return request.value("verify", false) && answer["source"] == "cache";
}

// Adds to `answer`, which comes from the cache, whether the SA agrees. If it does not, the answer of the SA replaces
// it, and the value that the cache had under `key` moves to "cached". `is_corrected`: the cache has dropped that value.
void compare(const resolution& cache_answer, const resolution& sa_answer, const char* key, bool is_corrected,
             json& answer)
{
    if (!is_answer(sa_answer)) {
        answer["verified"] = nullptr;
        answer["unverified_reason"] = sa_answer.reason;
        return;
    }
    const bool is_verified = agree(cache_answer, sa_answer);
    answer["verified"] = is_verified;
    if (is_verified) return;
    const json cached_value = answer.value(key, json());
    answer = answer_of(sa_answer, lookup_mode::sa_only);
    answer.update({{"verified", false}, {"source", "SA"}, {"cached", cached_value}, {"corrected", is_corrected}});
}

// Asks the SA about a GID that the cache knows. UCM's provider looks into the cache first. So the SA is asked about the
// address; if it disagrees, the cache drops the GID, and then UCM asks the SA.
resolution ask_sa_for_gid(kernel::machine& machine, const resolution& cache_answer)
{
    resolution by_address = resolve_address(machine, cache_answer.ip, lookup_mode::sa_only);
    if (!is_answer(by_address) || agree(cache_answer, by_address)) return by_address;
    const resolution by_gid = resolve_gid(machine, cache_answer.gid, lookup_mode::usual);
    if (!by_gid.from_cache) return by_gid;
    if (by_address.status == ibat_stat_ok)
        by_address.reason = "the SA names another GID for " + world::format_ipv4(cache_answer.ip);
    by_address.status = ibat_stat_not_found;
    return by_address;
}

lookup_mode mode_of(const json& request)
{
    return request.value("cached", false) ? lookup_mode::cache_only : lookup_mode::usual;
}

} // namespace

ats::result<json> answer_resolve(running_hosts& hosts, const json& request)
{
    if (request.contains("name")) return answer_resolve_name(hosts, request);
    const ats::result<world::host*> host = find_host(hosts, request);
    if (!host) return ats::pass_on(host);
    const ats::result<uint32_t> ip = console::address_of(request.at("address"));
    if (!ip) return ats::pass_on(ip);
    kernel::machine& machine = (*host)->machine();
    const lookup_mode mode = mode_of(request);
    const resolution resolution = resolve_address(machine, *ip, mode);
    json answer = answer_of(resolution, mode);
    if (must_verify(request, answer)) {
        const auto sa_answer = resolve_address(machine, *ip, lookup_mode::sa_only);
        const bool is_corrected = !agree(resolution, resolve_address(machine, *ip, lookup_mode::cache_only));
        compare(resolution, sa_answer, "gid", is_corrected, answer);
    }
    if (answer["status"] == "ok") answer["found"] = answer["gid"];
    return answer;
}

ats::result<json> answer_reverse(running_hosts& hosts, const json& request)
{
    const ats::result<world::host*> host = find_host(hosts, request);
    if (!host) return ats::pass_on(host);
    const ats::result<kq_gid_t> gid = console::gid_of(request.at("gid"));
    if (!gid) return ats::pass_on(gid);
    kernel::machine& machine = (*host)->machine();
    const lookup_mode mode = mode_of(request);
    const resolution resolution = resolve_gid(machine, *gid, mode);
    json answer = answer_of(resolution, mode);
    if (must_verify(request, answer)) {
        const auto sa_answer = ask_sa_for_gid(machine, resolution);
        const bool is_corrected = !agree(resolution, resolve_gid(machine, *gid, lookup_mode::cache_only));
        compare(resolution, sa_answer, "address", is_corrected, answer);
    }
    if (answer["status"] == "ok") answer["found"] = answer["address"];
    return answer;
}

ats::result<json> answer_flush(running_hosts& hosts, const json& request)
{
    const ats::result<world::host*> host = find_host(hosts, request);
    if (!host) return ats::pass_on(host);
    kernel::machine& machine = (*host)->machine();
    const std::string key = request.value("what", "");
    const std::optional<kq_gid_t> gid = world::parse_gid(key);
    ats::result<uint32_t> ip = 0;
    if (!key.empty() && !gid) ip = console::address_of(key);
    if (!ip) return ats::pass_on(ip);
    const world::published<ibat_flush_fn_t> flush(machine, "ibat_flush_fn");
    const world::published<ibat_forget_fn_t> forget(machine, "ibat_forget_fn");
    if (!flush || !forget) return ats::fail("ibat is not loaded on " + machine.name());
    int32_t count = 0;
    machine.enter("flush", [&] { count = key.empty() ? (*flush)() : (*forget)(*ip, gid ? &*gid : nullptr); });
    if (!key.empty() && count == 0)
        return ats::fail("the cache of " + machine.name() + " has no entry of " + key +
                         " that it could forget: 'ats status' shows it; its own mapping stays");
    json answer = done("The cache of " + machine.name() + " forgot " + std::to_string(count) +
                       (count == 1 ? " entry." : " entries."));
    answer["dropped"] = count;
    return answer;
}

} // namespace cli
