// Answers two kinds of requests: lookups of an address or a GID whose cached answer is verified at the SA, and requests
// to remove entries from the cache.

#include <optional>

#include "cli/service/lookup-answer.h"
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

// Returns true if the cache or the SA has answered, positively or negatively.
bool is_answer(const resolution& resolution)
{
    return resolution.status == ibat_stat_ok || resolution.status == ibat_stat_not_found;
}

json answer_of(const resolution& resolution, bool is_by_gid)
{
    return json::parse(lookup_answer(resolution, is_by_gid, false, std::nullopt));
}

bool agree(const resolution& one, const resolution& other)
{
    return one.status == other.status && (one.status != ibat_stat_ok || (one.ip == other.ip && one.gid == other.gid));
}

// Compares the cache's answer with the SA's answer, and adds the result to `answer`. At the call, `answer` describes
// `cache_answer`. If the SA's answer differs, `answer` afterwards describes `sa_answer`, and its member "cached" is the
// cached value. If the SA has not answered, `answer` gets the reason. `is_corrected` means that the cache has dropped
// its wrong value.
void compare(const resolution& cache_answer, const resolution& sa_answer, bool is_by_gid, bool is_corrected,
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
    const json cached_value = answer.value("found", json());
    answer = answer_of(sa_answer, is_by_gid);
    answer.update({{"verified", false}, {"source", "SA"}, {"cached", cached_value}, {"corrected", is_corrected}});
}

// Asks the SA about a GID that is in the cache. UCM's provider searches the cache first, so it finds the GID there and
// does not ask the SA. This function therefore asks the SA about the cached address. If the SA contradicts the cache,
// the cache drops the entry, except the host's own. A second lookup of the GID then reaches the SA. If it does not, the
// answer is "not found", because the SA has not confirmed the GID.
resolution ask_sa_for_gid(kernel::machine& machine, const resolution& cache_answer)
{
    resolution by_address = world::resolve_address(machine, cache_answer.ip, lookup_mode::sa_only);
    if (!is_answer(by_address) || agree(cache_answer, by_address)) return by_address;
    const resolution by_gid = world::resolve_gid(machine, cache_answer.gid, lookup_mode::usual);
    if (!by_gid.from_cache) return by_gid;
    if (by_address.status == ibat_stat_ok)
        by_address.reason = "the SA names another GID for " + world::format_ipv4(cache_answer.ip);
    by_address.status = ibat_stat_not_found;
    return by_address;
}

} // namespace

ats::result<json> answer_resolve(running_hosts& hosts, const json& request)
{
    if (request.contains("name")) return answer_resolve_name(hosts, request.at("name"));
    const ats::result<world::host*> host = find_host(hosts, request);
    if (!host) return ats::pass_on(host);
    const ats::result<uint32_t> ip = console::address_of(request.at("address"));
    if (!ip) return ats::pass_on(ip);
    kernel::machine& machine = (*host)->machine();
    const resolution resolution = world::resolve_address(machine, *ip);
    hosts.statistics_of(machine).lookups.note(lookup_kind::address, resolution);
    json answer = answer_of(resolution, false);
    if (answer["source"] != "cache") return answer;
    const auto sa_answer = world::resolve_address(machine, *ip, lookup_mode::sa_only);
    const bool is_corrected = !agree(resolution, resolve_address(machine, *ip, lookup_mode::cache_only));
    compare(resolution, sa_answer, false, is_corrected, answer);
    return answer;
}

ats::result<json> answer_reverse(running_hosts& hosts, const json& request)
{
    const ats::result<world::host*> host = find_host(hosts, request);
    if (!host) return ats::pass_on(host);
    const ats::result<kq_gid_t> gid = console::gid_of(request.at("gid"));
    if (!gid) return ats::pass_on(gid);
    kernel::machine& machine = (*host)->machine();
    const resolution resolution = world::resolve_gid(machine, *gid);
    hosts.statistics_of(machine).lookups.note(lookup_kind::gid, resolution);
    json answer = answer_of(resolution, true);
    if (answer["source"] != "cache") return answer;
    const auto sa_answer = ask_sa_for_gid(machine, resolution);
    const bool is_corrected = !agree(resolution, resolve_gid(machine, *gid, lookup_mode::cache_only));
    compare(resolution, sa_answer, true, is_corrected, answer);
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
