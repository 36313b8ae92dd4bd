#include "cli/server/request.h"

#include <algorithm>

namespace cli
{

namespace
{

using json = nlohmann::json;

constexpr size_t member_bytes = 128; // memory of a member of a json object, besides its text in the line

// Returns the id of the request, or nothing if it has no id. Fails if the id is not an integer from 0.
ats::result<std::optional<uint64_t>> id_of(const json& object)
{
    const auto id = object.find("id");
    if (id == object.end()) return std::optional<uint64_t>();
    if (!id->is_number_unsigned()) return ats::fail(ats::error_kind::invalid, "an id is an integer from 0");
    return std::optional<uint64_t>(id->get<uint64_t>());
}

} // namespace

ats::result<request> request_of(std::string_view line, const queue_place& place, std::optional<uint64_t>& id)
{
    json object = json::parse(line, nullptr, false);
    if (!object.is_object()) return ats::fail(ats::error_kind::invalid, "a request is one JSON object on a line");
    const ats::result<std::optional<uint64_t>> own_id = id_of(object);
    if (!own_id) return ats::pass_on(own_id);
    id = *own_id; // first, so that each refusal below has the id
    if (std::ranges::any_of(object, [](const json& member) { return member.is_structured(); }))
        return ats::fail(ats::error_kind::invalid, "a request's members are texts, numbers, true or false");
    const auto name = object.find("request");
    if (name == object.end() || !name->is_string())
        return ats::fail(ats::error_kind::invalid, "a request has a name, for example {\"request\":\"status\"}");
    const std::string text = *name;
    const size_t bytes = line.size() + object.size() * member_bytes;
    return request{std::move(object), text, {place, id, bytes}};
}

} // namespace cli
