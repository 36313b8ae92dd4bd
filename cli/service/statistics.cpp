#include "cli/service/statistics.h"

#include <algorithm>

namespace cli
{

namespace
{

lookup_outcome outcome_of(const world::resolution& answer, bool cache_only)
{
    switch (answer.status) {
    case ibat_stat_ok:
        return answer.from_cache ? lookup_outcome::cache_ok : lookup_outcome::sa_ok;
    case ibat_stat_not_found:
        return answer.from_cache ? lookup_outcome::cache_not_found : lookup_outcome::sa_not_found;
    case ibat_stat_timeout:
        return lookup_outcome::timed_out;
    default:
        return cache_only ? lookup_outcome::not_cached : lookup_outcome::failed;
    }
}

lookup_outcome outcome_of(const world::path_resolution& answer)
{
    switch (answer.status) {
    case world::path_status::found:
        return answer.from_cache ? lookup_outcome::cache_ok : lookup_outcome::sa_ok;
    case world::path_status::not_found:
        return answer.from_cache ? lookup_outcome::cache_not_found : lookup_outcome::sa_not_found;
    case world::path_status::not_cached:
        return lookup_outcome::not_cached;
    case world::path_status::timed_out:
        return lookup_outcome::timed_out;
    case world::path_status::no_active_port:
    case world::path_status::failed:
        return lookup_outcome::failed;
    }
    return lookup_outcome::failed;
}

} // namespace

void latency_histogram::note(uint64_t nanoseconds)
{
    const auto bucket = std::ranges::lower_bound(bounds_ns, nanoseconds) - bounds_ns.begin();
    count(counts.at(static_cast<size_t>(bucket)));
    count(sum_ns, nanoseconds);
}

void lookup_statistics::note(lookup_kind kind, lookup_outcome outcome, uint64_t nanoseconds)
{
    const auto index = static_cast<size_t>(outcome);
    count(counts.at(static_cast<size_t>(kind)).at(index));
    const std::string_view source = lookup_outcome_words.at(index).source;
    if (source == "cache") from_cache.note(nanoseconds);
    if (source == "sa") from_sa.note(nanoseconds);
}

void lookup_statistics::note(lookup_kind kind, const world::resolution& answer, bool cache_only)
{
    note(kind, outcome_of(answer, cache_only), answer.duration_nanoseconds);
}

void lookup_statistics::note(const world::path_resolution& answer)
{
    note(lookup_kind::path, outcome_of(answer), answer.duration_nanoseconds);
}

void host_statistics::follow(kernel::log& log)
{
    log.follow([this](const kernel::log_line& line) {
        count(log_lines.at(static_cast<size_t>(console::trace_level_of(line.text))));
    });
}

} // namespace cli
