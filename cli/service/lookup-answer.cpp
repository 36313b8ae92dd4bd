#include "cli/service/lookup-answer.h"

#include "host/world/text.h"

namespace cli
{

namespace
{

const char* status_word(const world::resolution& answer, bool cache_only)
{
    switch (answer.status) {
    case ibat_stat_ok:
        return "ok";
    case ibat_stat_timeout:
        return "timed out";
    case ibat_stat_not_found:
        return "not found";
    default:
        return cache_only ? "not cached" : "failed";
    }
}

const char* source_word(const world::resolution& answer)
{
    if (answer.status != ibat_stat_ok && answer.status != ibat_stat_not_found) return "null";
    return answer.from_cache ? R"("cache")" : R"("SA")";
}

} // namespace

// The texts in an answer are our own: nothing in them needs to be escaped.
std::string lookup_answer(const world::resolution& answer, bool is_by_gid, bool cache_only, std::optional<uint64_t> id)
{
    std::string line;
    line.reserve(256);
    const auto add = [&](const char* key, const std::string& text) {
        line += std::string(",\"") + key + "\":\"" + text + "\"";
    };
    line += "{";
    if (id) line += "\"id\":" + std::to_string(*id) + ",";
    line += R"("status":")" + std::string(status_word(answer, cache_only)) + R"(","source":)" + source_word(answer) +
            R"(,"microseconds":)" + std::to_string(answer.took_nanoseconds / 1000);
    if (answer.status == ibat_stat_ok) {
        const std::string address = world::format_ipv4(answer.ip);
        const std::string gid = world::format_gid(answer.gid);
        add("address", address);
        add("gid", gid);
        add("gid6", world::format_gid6(answer.gid));
        add("found", is_by_gid ? address : gid);
    } else {
        add("reason", answer.reason);
    }
    return line + "}";
}

} // namespace cli
