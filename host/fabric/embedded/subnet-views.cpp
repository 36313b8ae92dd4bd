#include "host/fabric/embedded/subnet-views.h"

#include <array>
#include <cstdio>
#include <cstring>

namespace embedded
{

namespace
{

// The bytes at the start of a field, up to a zero byte or the field's end.
std::string text_in(const void* field, size_t size)
{
    const char* const bytes = static_cast<const char*>(field);
    return {bytes, strnlen(bytes, size)};
}

} // namespace

std::string text_of(const fabric::gid_bytes& gid)
{
    std::string text = "0x";
    for (const uint8_t byte : gid) {
        text += "0123456789ABCDEF"[byte >> 4];
        text += "0123456789ABCDEF"[byte & 15];
    }
    return text;
}

service_record_view view_of(const ib_service_record_v2_t& record)
{
    char dotted[sizeof "255.255.255.255"];
    const uint8_t* octets = record.service_data8 + 12;
    snprintf(dotted, sizeof dotted, "%u.%u.%u.%u", octets[0], octets[1], octets[2], octets[3]);
    // The host name runs on from ServiceData32 into ServiceData64.
    const auto* host_name =
        reinterpret_cast<const uint8_t*>(&record) + offsetof(ib_service_record_v2_t, service_data32);
    return {.gid = text_of(std::to_array(record.service_gid.bytes)),
            .p_key = from_wire(record.service_pkey),
            .ipv4 = dotted,
            .host_name = text_in(host_name, sizeof record.service_data32 + sizeof record.service_data64),
            .lease_seconds = from_wire(record.service_lease),
            .service_id = from_wire(record.service_id),
            .service_name = text_in(record.service_name, sizeof record.service_name)};
}

} // namespace embedded
