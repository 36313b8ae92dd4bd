#include "bench/umad/sa-requests.h"

#include <arpa/inet.h>

#include "records/host-record.h"
#include "tools/fabric/sa-request.h"

namespace sa_load
{

namespace
{

// The component masks (IBA 15.2.5.14 and 15.2.5.16). They are those that real hosts use, except that set_mask lacks the
// P_Key: see make_request().
constexpr uint64_t set_mask = UINT64_MAX & ~(uint64_t{1} << SR_COMPONENT_SERVICE_P_KEY);
constexpr uint64_t by_gid_mask = 0x43;         // ServiceID, ServiceGID, ServiceName
constexpr uint64_t by_address_mask = 0x7FFFC1; // ServiceID, ServiceName, ServiceData8
constexpr uint64_t path_mask = 0x380C;         // both GIDs, Reversible, NumbPath, P_Key

constexpr uint64_t default_gid_prefix = 0xFE80000000000000;
constexpr uint64_t first_guid = 0x0A75000000000000;
constexpr uint32_t first_address = 0x0A000001; // 10.0.0.1
constexpr uint16_t default_p_key = 0xFFFF;

records::host_record host_record(uint32_t number)
{
    return {.gid = {.eui64 = first_guid + number, .subnet = default_gid_prefix},
            .p_key = default_p_key,
            .address = htonl(first_address + number),
            .host_name = "host" + std::to_string(number)};
}

uint8_t method_of(request_kind kind)
{
    switch (kind) {
    case request_kind::set:
        return MAD_METHOD_SET;
    case request_kind::remove:
        return MAD_METHOD_DELETE;
    default:
        return MAD_METHOD_GET;
    }
}

uint64_t record_mask_of(request_kind kind)
{
    switch (kind) {
    case request_kind::set:
        return set_mask;
    case request_kind::get_by_address:
        return by_address_mask;
    default:
        return by_gid_mask;
    }
}

ib_path_record_wire_t path_query(const kq_gid_t& source, const kq_gid_t& destination)
{
    ib_path_record_wire_t path{};
    path.dgid = to_wire(destination);
    path.sgid = to_wire(source);
    path.reversible_numb_path = 0x81;
    path.p_key = to_wire(default_p_key);
    return path;
}

} // namespace

std::string name_of(request_kind kind)
{
    switch (kind) {
    case request_kind::set:
        return "set";
    case request_kind::remove:
        return "delete";
    case request_kind::get_by_address:
        return "get-by-address";
    case request_kind::get_by_gid:
        return "get-by-gid";
    default:
        return "get-path";
    }
}

std::optional<request_kind> kind_named(const std::string& name)
{
    for (const request_kind each : all_kinds)
        if (name_of(each) == name) return each;
    return std::nullopt;
}

sa_mad_v2_t make_request(request_kind kind, uint32_t number, const kq_gid_t& source, const kq_gid_t& destination)
{
    const uint8_t method = method_of(kind);
    if (kind == request_kind::get_path)
        return fabric_tools::make_request(method, SA_ATTR_PATH_RECORD, path_mask, path_query(source, destination));
    return fabric_tools::make_request(method, SA_ATTR_SERVICE_RECORD, record_mask_of(kind),
                                      records::encode(host_record(number)));
}

} // namespace sa_load
