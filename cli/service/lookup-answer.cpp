#include "cli/service/lookup-answer.h"

#include <fmt/core.h>

#include "console/record-answer.h"
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

const char* status_word(world::path_status status)
{
    switch (status) {
    case world::path_status::found:
        return "ok";
    case world::path_status::not_found:
        return "not found";
    case world::path_status::not_cached:
        return "not cached";
    case world::path_status::timed_out:
        return "timed out";
    default:
        return "failed";
    }
}

const char* source_word(const world::path_resolution& answer)
{
    if (answer.status != world::path_status::found && answer.status != world::path_status::not_found) return "null";
    return answer.from_cache ? R"("cache")" : R"("SA")";
}

// Starts an object with the id, the status, the source and the time.
std::string begin_answer(const std::optional<uint64_t>& id, const char* status, const char* source,
                         uint64_t nanoseconds)
{
    std::string line;
    line.reserve(512);
    line += "{";
    if (id) line += "\"id\":" + std::to_string(*id) + ",";
    return line + R"("status":")" + status + R"(","source":)" + source + R"(,"microseconds":)" +
           std::to_string(nanoseconds / 1000);
}

// These functions add a member to the JSON object in `line`. The texts come from this program and contain no characters
// that JSON must escape.
void add_text(std::string& line, const char* key, const std::string& text)
{
    line += std::string(",\"") + key + "\":\"" + text + "\"";
}
void add_number(std::string& line, const char* key, uint64_t number)
{
    line += std::string(",\"") + key + "\":" + std::to_string(number);
}

void add_path(std::string& line, const world::path_record& path)
{
    add_text(line, "dgid", world::format_gid(path.dgid));
    add_text(line, "sgid", world::format_gid(path.sgid));
    add_number(line, "dlid", path.dlid);
    add_number(line, "slid", path.slid);
    add_number(line, "sl", path.sl);
    add_text(line, "p_key", console::format_word(path.p_key));
    add_number(line, "mtu", path.mtu);
    add_number(line, "mtu_bytes", mtu_bytes_of(path));
    add_number(line, "rate", path.rate);
    line += fmt::format(",\"rate_gbps\":{}", gigabits_of(path));
    add_number(line, "packet_lifetime", path.packet_lifetime);
    add_number(line, "packet_lifetime_microseconds", lifetime_microseconds_of(path));
    add_number(line, "hop_limit", path.hop_limit);
    add_number(line, "flow_label", path.flow_label);
    add_number(line, "traffic_class", path.traffic_class);
    line += std::string(",\"reversible\":") + (path.is_reversible ? "true" : "false");
}

} // namespace

std::string lookup_answer(const world::resolution& answer, bool is_by_gid, bool cache_only, std::optional<uint64_t> id)
{
    std::string line =
        begin_answer(id, status_word(answer, cache_only), source_word(answer), answer.duration_nanoseconds);
    if (answer.status == ibat_stat_ok) {
        const std::string address = world::format_ipv4(answer.ip);
        const std::string gid = world::format_gid(answer.gid);
        add_text(line, "address", address);
        add_text(line, "gid", gid);
        add_text(line, "gid6", world::format_gid6(answer.gid));
        add_text(line, "found", is_by_gid ? address : gid);
    } else {
        add_text(line, "reason", answer.reason);
    }
    return line + "}";
}

std::string path_answer(const world::path_resolution& answer, std::optional<uint64_t> id)
{
    std::string line = begin_answer(id, status_word(answer.status), source_word(answer), answer.duration_nanoseconds);
    if (answer.status == world::path_status::found) {
        if (answer.ip != 0) add_text(line, "address", world::format_ipv4(answer.ip));
        add_text(line, "gid", world::format_gid(answer.gid));
        add_text(line, "gid6", world::format_gid6(answer.gid));
        add_number(line, "port", answer.port);
        add_path(line, answer.path);
    } else {
        add_text(line, "reason", answer.reason);
    }
    return line + "}";
}

} // namespace cli
