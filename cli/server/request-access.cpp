#include "cli/server/request-access.h"

#include "cli/service/requests.h"
#include "console/errors.h"

namespace cli
{

namespace
{

std::string log_refusal(int log_level)
{
    if (log_level == 0) return "this service shows its log only to those who may give orders";
    return "this service shows you its log up to level " + std::to_string(log_level) + ": ask for that with 'level'";
}

} // namespace

std::optional<ats::error> refusal_of(const access_rules& access, const peer& peer, const request_type& type,
                                     const nlohmann::json& request)
{
    const auto refuse = [](const std::string& text) { return ats::error(ats::error_kind::invalid, text); };
    if (access.orders.admits(peer)) return std::nullopt;
    if (type.kind == request_kind::order)
        return refuse(console::quote(std::string(type.name)) + " is an order, and this service takes orders from " +
                      access.orders.text + " only");
    if (!access.questions.admits(peer)) return refuse("this service answers " + access.questions.text + " only");
    if (type.name != "log") return std::nullopt;
    const ats::result<int> level = trace_level_of(request);
    if (!level) return level.error();
    const bool is_allowed = access.log_level > 0 && *level <= access.log_level;
    return is_allowed ? std::nullopt : std::optional(refuse(log_refusal(access.log_level)));
}

} // namespace cli
