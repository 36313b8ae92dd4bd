// Makes requests to the SA, for tools and benchmarks that talk to the SA without a host.
#pragma once

#include <arpa/inet.h>
#include <cstdint>
#include <cstring>

#include "sa-mads.h"

namespace fabric_tools
{

// Returns a request (IBA 15.2.1) that contains `record`, which is in wire order. The other arguments are in host order.
// The caller sets the TransactionID.
template <class record_t>
sa_mad_v2_t make_request(uint8_t method, uint16_t attribute, uint64_t component_mask, const record_t& record)
{
    sa_mad_v2_t mad{};
    static_assert(sizeof record <= sizeof mad.payload);
    mad.hdr.base_ver = MAD_BASE_VERSION;
    mad.hdr.mgt_class = MAD_CLASS_SUBN_ADM;
    mad.hdr.class_ver = MAD_CLASS_VERSION_SUBN_ADM;
    mad.hdr.m.method = method;
    mad.hdr.attrib_id = htons(attribute);
    mad.component_mask = to_wire(component_mask);
    std::memcpy(mad.payload, &record, sizeof record);
    return mad;
}

} // namespace fabric_tools
