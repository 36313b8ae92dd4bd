#include "records/host-record.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace records
{

namespace
{

constexpr uint8_t data16_marker[] = {0x5C, 0x27}; // the first bytes of ServiceData16 in every record of the service
constexpr size_t host_name_offset = offsetof(ib_service_record_v2_t, service_data32);

const char* meaning_of(uint16_t word)
{
    if (word == 0) return "success";
    if (word & MAD_STATUS_BUSY) return "it is busy";
    if (word & MAD_STATUS_COMMON_BITS) return "it does not accept the request";
    switch (word >> 8) {
    case SA_STATUS_NO_RESOURCES:
        return "it has no room";
    case SA_STATUS_REQ_INVALID:
        return "it finds the request invalid";
    case SA_STATUS_NO_RECORDS:
        return "it holds no such record";
    case SA_STATUS_TOO_MANY_RECORDS:
        return "it holds several such records";
    case SA_STATUS_REQ_INVALID_GID:
        return "it does not accept the GID";
    case SA_STATUS_REQ_INSUFFICIENT_COMPONENTS:
        return "it misses parts of the record";
    default:
        return "its meaning is not known";
    }
}

} // namespace

bool is_host_record(const ib_service_record_v2_t& record)
{
    return from_wire(record.service_id) == service_id;
}

host_record decode(const ib_service_record_v2_t& record)
{
    host_record host{.gid = from_wire(record.service_gid), .p_key = from_wire(record.service_pkey), .host_name = {}};
    std::memcpy(&host.address, record.service_data8 + address_offset, sizeof host.address);
    const char* const name = reinterpret_cast<const char*>(&record) + host_name_offset;
    host.host_name.assign(name, strnlen(name, host_name_size));
    return host;
}

ib_service_record_v2_t encode(const host_record& host)
{
    ib_service_record_v2_t record{};
    record.service_id = to_wire(service_id);
    record.service_gid = to_wire(host.gid);
    record.service_pkey = to_wire(host.p_key);
    record.service_lease = to_wire(infinite_lease);
    std::memcpy(record.service_name, service_name, sizeof service_name);
    std::memcpy(record.service_data8 + address_offset, &host.address, sizeof host.address);
    std::memcpy(record.service_data16, data16_marker, sizeof data16_marker);
    char* const name = reinterpret_cast<char*>(&record) + host_name_offset;
    // NOLINTNEXTLINE(bugprone-not-null-terminated-result): a name of host_name_size bytes has no terminating NUL
    std::memcpy(name, host.host_name.data(), std::min(host.host_name.size(), host_name_size));
    return record;
}

std::string gid_text(const kq_gid_t& gid)
{
    char text[sizeof "0x" + 32];
    std::snprintf(text, sizeof text, "0x%016llX%016llX", static_cast<unsigned long long>(gid.subnet),
                  static_cast<unsigned long long>(gid.eui64));
    return text;
}

std::string lease_text(uint32_t seconds)
{
    return seconds == infinite_lease ? "infinite" : std::to_string(seconds) + " s";
}

std::string status_text(uint16_t word)
{
    char text[80];
    std::snprintf(text, sizeof text, "0x%04X (%s)", word, meaning_of(word));
    return text;
}

} // namespace records
