#include "recording/mad-fields.h"

#include <bit>
#include <cstdio>
#include <cstring>

#include "host/fabric/embedded/subnet-views.h"
#include "records/host-record.h"

namespace recording
{

namespace
{

using json = nlohmann::ordered_json;

std::string hex(uint64_t number)
{
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(number));
    return text;
}

std::string method_text(const mad_method_t& method)
{
    const std::string response = method.r ? "Resp" : "";
    switch (method.method) {
    case MAD_METHOD_GET:
        return "Get" + response;
    case MAD_METHOD_SET:
        return "Set" + response;
    case MAD_METHOD_DELETE:
        return "Delete" + response;
    case MAD_METHOD_GET_TABLE:
        return "GetTable" + response;
    default:
        return hex(method.method) + response;
    }
}

std::string attribute_text(uint16_t attribute)
{
    if (attribute == SA_ATTR_SERVICE_RECORD) return "ServiceRecord";
    if (attribute == SA_ATTR_PATH_RECORD) return "PathRecord";
    return hex(attribute);
}

json path_fields(const sa_mad_v2_t& mad)
{
    ib_path_record_wire_t path;
    std::memcpy(&path, mad.payload, sizeof path);
    return {{"sgid", embedded::text_of(std::to_array(path.sgid.bytes))},
            {"dgid", embedded::text_of(std::to_array(path.dgid.bytes))},
            {"slid", from_wire(path.slid)},
            {"dlid", from_wire(path.dlid)},
            {"p_key", hex(from_wire(path.p_key))}};
}

} // namespace

json fields_of(const fabric::mad_bytes& bytes)
{
    const auto mad = std::bit_cast<sa_mad_v2_t>(bytes);
    const uint16_t attribute = from_wire(std::bit_cast<be16_t>(mad.hdr.attrib_id));
    json fields = {{"method", method_text(mad.hdr.m)},
                   {"attribute", attribute_text(attribute)},
                   {"tid", hex(from_wire(mad.hdr.transact_id))}};
    if (mad.hdr.m.r) fields["status"] = records::status_text(from_wire(mad.hdr.u.ns.status.raw16));
    fields["mask"] = hex(from_wire(mad.component_mask));
    if (attribute == SA_ATTR_SERVICE_RECORD) {
        ib_service_record_v2_t record;
        std::memcpy(&record, mad.payload, sizeof record);
        fields["record"] = fields_of(record);
    }
    if (attribute == SA_ATTR_PATH_RECORD) fields["path"] = path_fields(mad);
    return fields;
}

json fields_of(const ib_service_record_v2_t& record)
{
    const embedded::service_record_view view = embedded::view_of(record);
    json fields = {{"gid", view.gid},
                   {"p_key", hex(view.p_key)},
                   {"address", view.ipv4},
                   {"name", view.host_name},
                   {"lease", records::lease_text(view.lease_seconds)}};
    if (!records::is_host_record(record)) fields["service"] = hex(view.service_id);
    return fields;
}

} // namespace recording
