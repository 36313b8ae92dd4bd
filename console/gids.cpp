#include "console/gids.h"

#include "console/errors.h"
#include "host/world/text.h"

namespace console
{

using json = nlohmann::json;

ats::result<kq_gid_t> gid_of(const std::string& text)
{
    const std::optional<kq_gid_t> gid = world::parse_gid(text);
    if (gid) return *gid;
    return ats::fail(ats::error_kind::invalid,
                     quote(text) + " is not a GID: write 0x and up to 32 hexadecimal digits, or like fe80::1");
}

void add_gid6(json& answer)
{
    if (answer.is_object() && answer.contains("gid")) {
        const json& gid = answer["gid"];
        std::optional<kq_gid_t> value;
        if (gid.is_string()) value = world::parse_gid(gid.get<std::string>());
        answer["gid6"] = value ? json(world::format_gid6(*value)) : json();
    }
    if (answer.is_structured())
        for (json& part : answer) add_gid6(part);
}

void use_ipv6_notation(json& answer)
{
    constexpr size_t size_of_gid = sizeof "0x" - 1 + 32;
    if (answer.is_structured()) {
        for (json& part : answer) use_ipv6_notation(part);
    } else if (answer.is_string()) {
        const std::string text = answer.get<std::string>();
        if (!text.starts_with("0x") || text.size() != size_of_gid) return;
        const std::optional<kq_gid_t> gid = world::parse_gid(text);
        if (gid) answer = world::format_gid6(*gid);
    }
}

} // namespace console
