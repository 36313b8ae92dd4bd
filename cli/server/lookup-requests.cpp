#include "cli/server/lookup-requests.h"

#include "cli/service/lookup-answer.h"
#include "console/gids.h"
#include "console/identity.h"

namespace cli
{

namespace
{

constexpr auto cache_only = world::lookup_mode::cache_only;

lookups::answer find_in_cache(kernel::machine& machine, const lookups::subject& subject)
{
    if (const auto* path = std::get_if<lookups::path_to_address>(&subject))
        return resolve_path(machine, path->ip, cache_only);
    if (const auto* path = std::get_if<lookups::path_to_gid>(&subject))
        return resolve_path(machine, path->gid, cache_only);
    if (const kq_gid_t* gid = std::get_if<kq_gid_t>(&subject)) return resolve_gid(machine, *gid, cache_only);
    return resolve_address(machine, std::get<uint32_t>(subject), cache_only);
}

} // namespace

bool is_simple_lookup(const request& request)
{
    const bool is_lookup = request.name == "resolve" || request.name == "reverse" || request.name == "path";
    return is_lookup && !request.object.value("verify", false) && !request.object.contains("name");
}

ats::result<lookups::subject> subject_of(const request& request)
{
    const bool is_fresh = request.object.value("fresh", false);
    const bool is_path = request.name == "path";
    if (request.name == "reverse" || (is_path && request.object.contains("gid"))) {
        const ats::result<kq_gid_t> gid = console::gid_of(request.object.at("gid"));
        if (!gid) return ats::pass_on(gid);
        return is_path ? lookups::subject(lookups::path_to_gid{*gid, is_fresh}) : lookups::subject(*gid);
    }
    const ats::result<uint32_t> ip = console::address_of(request.object.at("address"));
    if (!ip) return ats::pass_on(ip);
    if (is_path) return lookups::path_to_address{*ip, is_fresh};
    return is_fresh ? lookups::subject(lookups::fresh_address{*ip}) : lookups::subject(*ip);
}

lookups::answer look_into_cache(kernel::machine& machine, const lookups::subject& subject,
                                lookup_statistics& statistics)
{
    const lookups::answer answer = find_in_cache(machine, subject);
    const bool is_by_gid = std::holds_alternative<kq_gid_t>(subject);
    if (const auto* path = std::get_if<world::path_resolution>(&answer))
        statistics.note(*path);
    else
        statistics.note(is_by_gid ? lookup_kind::gid : lookup_kind::address, std::get<world::resolution>(answer), true);
    return answer;
}

std::string line_of(const lookups::answer& answer, bool is_by_gid, bool is_cached_only,
                    const std::optional<uint64_t>& id)
{
    if (const auto* path = std::get_if<world::path_resolution>(&answer)) return path_answer(*path, id);
    return lookup_answer(std::get<world::resolution>(answer), is_by_gid, is_cached_only, id);
}

} // namespace cli
