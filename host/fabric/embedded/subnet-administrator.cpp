#include "host/fabric/embedded/subnet-administrator.h"

#include <bit>
#include <cstring>
#include <utility>

#include "records/host-record.h"

namespace embedded
{

namespace
{

constexpr uint64_t component(service_record_component_t bit)
{
    return uint64_t{1} << bit;
}

uint16_t status_word(matches count)
{
    switch (count) {
    case matches::one:
        return 0;
    case matches::none:
        return status_word(SA_STATUS_NO_RECORDS);
    default:
        return status_word(SA_STATUS_TOO_MANY_RECORDS);
    }
}

// Returns true if the MAD is a request of the SA's class. The SA answers only such MADs.
bool is_request(const sa_mad_v2_t& mad)
{
    return mad.hdr.mgt_class == MAD_CLASS_SUBN_ADM && !mad.hdr.m.r;
}

void count(const mad_hdr_t& header, subnet_counts& counts)
{
    switch (header.m.method) {
    case MAD_METHOD_GET:
        ++counts.sa_gets;
        break;
    case MAD_METHOD_SET:
        ++counts.sa_sets;
        break;
    case MAD_METHOD_DELETE:
        ++counts.sa_deletes;
        break;
    default:
        ++counts.sa_others;
        break;
    }
}

// Turns a request into its response. TransactionID, attribute, component mask and payload do not change.
void make_response(sa_mad_v2_t& mad, uint16_t status)
{
    // The method of an answer to a Set is SubnAdmGetResp. Any other method has its own response (IBA 15.2.2).
    if (mad.hdr.m.method == MAD_METHOD_SET) mad.hdr.m.method = MAD_METHOD_GET;
    mad.hdr.m.r = 1;
    mad.hdr.u.ns.status.raw16 = to_wire(status);
}

} // namespace

subnet_administrator::subnet_administrator(size_t record_limit, port_directory ports, const path_attributes& paths)
    : records(record_limit), ports_(std::move(ports)), path_attributes_(paths)
{
}

bool subnet_administrator::answer(fabric::mad_bytes& bytes, uint64_t now_ticks, subnet_counts& counts)
{
    auto mad = std::bit_cast<sa_mad_v2_t>(bytes);
    if (!is_request(mad)) return false;
    count(mad.hdr, counts);

    make_response(mad, serve(mad, now_ticks));
    bytes = std::bit_cast<fabric::mad_bytes>(mad);
    return true;
}

bool subnet_administrator::refuse(fabric::mad_bytes& bytes, uint16_t status, subnet_counts& counts)
{
    auto mad = std::bit_cast<sa_mad_v2_t>(bytes);
    if (!is_request(mad)) return false;
    count(mad.hdr, counts);
    make_response(mad, status);
    bytes = std::bit_cast<fabric::mad_bytes>(mad);
    return true;
}

uint16_t subnet_administrator::serve(sa_mad_v2_t& mad, uint64_t now_ticks)
{
    if (mad.hdr.base_ver != MAD_BASE_VERSION || mad.hdr.class_ver != MAD_CLASS_VERSION_SUBN_ADM)
        return MAD_STATUS_BAD_VERSION;
    const uint8_t method = mad.hdr.m.method;
    if (method != MAD_METHOD_GET && method != MAD_METHOD_SET && method != MAD_METHOD_DELETE)
        return MAD_STATUS_UNSUPPORTED_METHOD;
    const uint64_t component_mask = from_wire(mad.component_mask);
    const auto serve_record = [&](auto record, const auto& serve) {
        memcpy(&record, mad.payload, sizeof record);
        const uint16_t status = serve(record);
        if (status == 0) memcpy(mad.payload, &record, sizeof record);
        return status;
    };
    // attrib_id is declared as a number in host order, but here it is still in wire order.
    switch (from_wire(std::bit_cast<be16_t>(mad.hdr.attrib_id))) {
    case SA_ATTR_SERVICE_RECORD:
        return serve_record(ib_service_record_v2_t{}, [&](ib_service_record_v2_t& record) {
            return serve_service_record(method, component_mask, record, now_ticks);
        });
    case SA_ATTR_PATH_RECORD:
        return serve_record(ib_path_record_wire_t{}, [&](ib_path_record_wire_t& record) {
            return serve_path_record(method, component_mask, record);
        });
    default:
        return MAD_STATUS_UNSUPPORTED_METHOD_ATTRIBUTE;
    }
}

// Only the subnet manager makes paths. Requests cannot set or delete them.
uint16_t subnet_administrator::serve_path_record(uint8_t method, uint64_t component_mask,
                                                 ib_path_record_wire_t& record) const
{
    if (method != MAD_METHOD_GET) return MAD_STATUS_UNSUPPORTED_METHOD_ATTRIBUTE;
    return find_path(ports_, path_attributes_, component_mask, record);
}

uint16_t subnet_administrator::serve_service_record(uint8_t method, uint64_t component_mask,
                                                    ib_service_record_v2_t& record, uint64_t now_ticks)
{
    switch (method) {
    case MAD_METHOD_SET:
        return set(component_mask, record, now_ticks);
    case MAD_METHOD_DELETE:
        return remove(component_mask, record, now_ticks);
    // A Get without selected components matches every record, because a cleared bit is a wildcard (IBA 15.4.4).
    default:
        return status_word(records.get(component_mask, record, now_ticks, record));
    }
}

uint16_t subnet_administrator::set(uint64_t component_mask, ib_service_record_v2_t& record, uint64_t now_ticks)
{
    // ServiceID and ServiceGID are parts of the key, and have no default.
    constexpr uint64_t required_components = component(SR_COMPONENT_SERVICE_ID) | component(SR_COMPONENT_SERVICE_GID);
    if ((component_mask & required_components) != required_components)
        return status_word(SA_STATUS_REQ_INSUFFICIENT_COMPONENTS);
    if (!ports_.by_gid(std::to_array(record.service_gid.bytes))) return status_word(SA_STATUS_REQ_INVALID_GID);

    ib_service_record_v2_t result = components_of(component_mask, record);
    if (!(component_mask & component(SR_COMPONENT_SERVICE_LEASE)))
        result.service_lease = to_wire(records::infinite_lease);
    if (from_wire(result.service_lease) == 0) return status_word(SA_STATUS_REQ_INVALID); // it would expire at once
    if (!records.set(result, now_ticks)) return status_word(SA_STATUS_NO_RESOURCES);
    record = result;
    return 0;
}

uint16_t subnet_administrator::remove(uint64_t component_mask, ib_service_record_v2_t& record, uint64_t now_ticks)
{
    // A request deletes one record (IBA 15.4). If the mask selects no component, or if several records match, the SA
    // refuses the request and deletes nothing.
    if ((component_mask & defined_components) == 0) return status_word(SA_STATUS_REQ_INSUFFICIENT_COMPONENTS);
    return status_word(records.remove(component_mask, record, now_ticks, record));
}

} // namespace embedded
