#include "recording/event-fields.h"

#include <map>
#include <string_view>
#include <vector>

namespace recording
{

namespace
{

using json = nlohmann::ordered_json;
using name_list = std::vector<const char*>;

struct field_names {
    name_list texts;
    name_list numbers;
};

const field_names needed_record_fields{{"gid", "p_key", "address", "name", "lease"}, {}};
const field_names needed_path_fields{{"sgid", "dgid", "p_key"}, {"slid", "dlid"}};

const std::map<std::string_view, field_names> fields_of_kinds = {
    {"port", {{"port", "host", "gid", "state"}, {"lid", "sm_lid"}}},
    {"sm", {{}, {"lid"}}},
    {"sent", {{"from", "method", "attribute", "tid"}, {"n", "lid"}}},
    {"arrived", {{"to"}, {"n"}}},
    {"lost", {{"why"}, {"n"}}},
    {"refused", {{"from", "method", "attribute", "tid"}, {}}},
    {"stored", needed_record_fields},
    {"removed", needed_record_fields},
    {"fault", {{"name"}, {"value"}}},
    {"handled", {{"port", "event", "cause"}, {}}},
    {"log", {{"host", "text"}, {"level"}}},
    {"step", {{"text"}, {}}},
    {"act", {{"phase", "name", "host", "harm"}, {"number"}}},
    {"violation", {{"text"}, {}}},
};

std::string missing_field(const json& object, const field_names& fields)
{
    const auto find = [&](const char* name) { return object.is_object() ? object.value(name, json()) : json(); };
    for (const char* name : fields.texts)
        if (!find(name).is_string()) return "the text '" + std::string(name) + "'";
    for (const char* name : fields.numbers)
        if (!find(name).is_number()) return "the number '" + std::string(name) + "'";
    return "";
}

} // namespace

std::string fault_in_fields(const json& event)
{
    const auto kind = event.at("e").get<std::string>();
    const auto fields = fields_of_kinds.find(kind);
    if (fields == fields_of_kinds.end()) return "";
    if (const std::string field = missing_field(event, fields->second); !field.empty())
        return "an event '" + kind + "' needs " + field;
    const bool has_mad = kind == "sent" || kind == "refused";
    if (!has_mad) return "";
    if (event.contains("status") && !event["status"].is_string()) return "the field 'status' is a text";
    for (const auto& [part, part_fields] :
         {std::pair{"record", needed_record_fields}, std::pair{"path", needed_path_fields}})
        if (event.contains(part))
            if (const std::string field = missing_field(event[part], part_fields); !field.empty())
                return "the field '" + std::string(part) + "' needs " + field;
    return "";
}

} // namespace recording
