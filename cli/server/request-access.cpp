#include "cli/server/request-access.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "cli/service/requests.h"
#include "console/errors.h"

namespace cli
{

namespace
{

constexpr std::array<std::string_view, 7> questions = {"ping", "status", "resolve", "reverse",
                                                       "path", "log",    "metrics"};

bool is_question(const nlohmann::json& request, const std::string& name)
{
    if (name == "sa") return request.value("action", nlohmann::json()) == "show";
    return std::ranges::find(questions, name) != questions.end();
}

std::string log_refusal(int log_level)
{
    if (log_level == 0) return "this service shows its log only to those who may give orders";
    return "this service shows you its log up to level " + std::to_string(log_level) + ": ask for that with 'level'";
}

} // namespace

std::optional<ats::error> refusal_of(const access_rules& access, const peer& peer, const nlohmann::json& request,
                                     const std::string& name)
{
    const auto refuse = [](const std::string& text) { return ats::error(ats::error_kind::invalid, text); };
    if (!is_question(request, name)) {
        if (access.orders.admits(peer)) return std::nullopt;
        return refuse(console::quote(name) + " is an order, and this service takes orders from " + access.orders.text +
                      " only");
    }
    if (!access.questions.admits(peer) && !access.orders.admits(peer))
        return refuse("this service answers " + access.questions.text + " only");
    if (name != "log" || access.orders.admits(peer)) return std::nullopt;
    const ats::result<int> level = trace_level_of(request);
    if (!level) return level.error();
    const bool is_allowed = access.log_level > 0 && *level <= access.log_level;
    return is_allowed ? std::nullopt : std::optional(refuse(log_refusal(access.log_level)));
}

} // namespace cli
