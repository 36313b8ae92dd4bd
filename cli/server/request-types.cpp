#include "cli/server/request-types.h"

#include <algorithm>
#include <iterator>
#include <limits>

#include "cli/metrics/metrics.h"
#include "cli/server/answer-lines.h"
#include "cli/service/requests.h"

namespace cli
{

namespace
{

std::optional<ats::error> wrong_lookup(const json& request)
{
    const auto is_set = [&](const char* key) { return request.value(key, false); };
    if (is_set("cached") + is_set("verify") + is_set("fresh") > 1)
        return malformed("'cached', 'verify' and 'fresh' exclude each other");
    const ats::result<int> limit_ms = integer_of(request, "within_ms", 1, std::numeric_limits<int32_t>::max(), 1);
    return limit_ms ? std::nullopt : std::optional(limit_ms.error());
}

std::optional<ats::error> wrong_reverse(const json& request)
{
    if (request.value("fresh", false)) return malformed("'fresh' is for addresses and paths only");
    return wrong_lookup(request);
}

std::optional<ats::error> wrong_path(const json& request)
{
    if (request.value("verify", false)) return malformed("'verify' is for addresses and GIDs only");
    if (request.contains("address") == request.contains("gid"))
        return malformed("a path needs an 'address' or a 'gid'");
    return wrong_lookup(request);
}

std::optional<ats::error> wrong_level(const json& request)
{
    const ats::result<int> level = trace_level_of(request);
    return level ? std::nullopt : std::optional(level.error());
}

ats::result<json> answer_metrics(running_hosts& hosts, const json&)
{
    return json{{"text", metrics::text_of(metrics::collect(hosts))}};
}

constexpr auto question = request_kind::question;
constexpr auto order = request_kind::order;

constexpr request_type types[] = {
    {"ping", question, nullptr, nullptr},
    {"status", question, nullptr, answer_status},
    {"resolve", question, wrong_lookup, answer_resolve},
    {"reverse", question, wrong_reverse, answer_reverse},
    {"path", question, wrong_path, nullptr},
    {"metrics", question, nullptr, answer_metrics},
    {"log", question, wrong_level, nullptr},
    {"flush", order, nullptr, answer_flush},
    {"control", order, nullptr, answer_control},
    {"trace", order, nullptr, answer_trace},
    {"set-name", order, nullptr, answer_set_name},
    {"set-address", order, nullptr, answer_set_address},
    {"link", order, nullptr, answer_link},
    {"sa", question, nullptr, answer_sa, "show"},
    {"sa", order, nullptr, answer_sa},
};

} // namespace

const request_type* find_type(std::string_view name, const json& request)
{
    const auto fits = [&](const request_type& type) {
        return type.name == name && (type.action.empty() || request.value("action", json()) == type.action);
    };
    const request_type* const type = std::ranges::find_if(types, fits);
    return type == std::end(types) ? nullptr : type;
}

} // namespace cli
