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
    if (subject.is_path) return resolve_path(machine, subject.target, cache_only);
    if (const kq_gid_t* gid = std::get_if<kq_gid_t>(&subject.target)) return resolve_gid(machine, *gid, cache_only);
    return resolve_address(machine, std::get<uint32_t>(subject.target), cache_only);
}

bool is_lookup(const request& request)
{
    return request.name == "resolve" || request.name == "reverse" || request.name == "path";
}

} // namespace

bool is_simple_lookup(const request& request)
{
    if (request.name == "path") return true;
    return is_lookup(request) && !request.object.value("verify", false) && !request.object.contains("name");
}

lookups::time_point deadline_of(const request& request)
{
    if (!is_lookup(request) || !request.object.contains("within_ms")) return lookups::time_point::max();
    return std::chrono::steady_clock::now() + std::chrono::milliseconds(request.object.at("within_ms").get<int>());
}

ats::result<lookups::subject> subject_of(const request& request)
{
    const bool is_fresh = request.object.value("fresh", false);
    const bool is_path = request.name == "path";
    if (request.name == "reverse" || (is_path && request.object.contains("gid"))) {
        const ats::result<kq_gid_t> gid = console::gid_of(request.object.at("gid"));
        if (!gid) return ats::pass_on(gid);
        return lookups::subject{*gid, is_path, is_fresh};
    }
    const ats::result<uint32_t> ip = console::address_of(request.object.at("address"));
    if (!ip) return ats::pass_on(ip);
    return lookups::subject{*ip, is_path, is_fresh};
}

lookups::answer look_into_cache(kernel::machine& machine, const lookups::subject& subject,
                                lookup_statistics& statistics)
{
    const lookups::answer answer = find_in_cache(machine, subject);
    const bool is_by_gid = std::holds_alternative<kq_gid_t>(subject.target);
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
