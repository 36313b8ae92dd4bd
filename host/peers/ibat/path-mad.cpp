#include "host/peers/ibat/path-mad.h"

#include <cstring>

namespace ibat
{
namespace
{

constexpr uint8_t reversible_bit = 0x80;
constexpr uint8_t value_bits = 0x3F;
constexpr int selector_shift = 6;

constexpr uint64_t component(path_record_component_t bit)
{
    return uint64_t{1} << bit;
}

constexpr uint64_t asked_components = component(PR_COMPONENT_DGID) | component(PR_COMPONENT_SGID) |
                                      component(PR_COMPONENT_REVERSIBLE) | component(PR_COMPONENT_NUMB_PATH) |
                                      component(PR_COMPONENT_P_KEY);

} // namespace

sa_mad_v2_t path_request_mad(const source_port& source, const kq_gid_t& destination, uint32_t serial)
{
    sa_mad_v2_t mad{};
    mad.hdr.base_ver = MAD_BASE_VERSION;
    mad.hdr.mgt_class = MAD_CLASS_SUBN_ADM;
    mad.hdr.class_ver = MAD_CLASS_VERSION_SUBN_ADM;
    mad.hdr.m.method = MAD_METHOD_GET;
    mad.hdr.transact_id = to_wire(uint64_t{serial});
    mad.hdr.attrib_id = SA_ATTR_PATH_RECORD;
    mad.component_mask = to_wire(asked_components);
    ib_path_record_wire_t record{};
    record.dgid = to_wire(destination);
    record.sgid = to_wire(source.gid);
    record.reversible_numb_path = reversible_bit | 1;
    record.p_key = to_wire(source.p_key);
    memcpy(mad.payload, &record, sizeof record);
    return mad;
}

ib_path_record_v2_t path_in(const sa_mad_v2_t& mad)
{
    ib_path_record_wire_t wire;
    memcpy(&wire, mad.payload, sizeof wire);
    const uint32_t route = from_wire(wire.route);
    ib_path_record_v2_t path{};
    path.dgid = from_wire(wire.dgid);
    path.sgid = from_wire(wire.sgid);
    path.dlid = from_wire(wire.dlid);
    path.slid = from_wire(wire.slid);
    path.hop_limut = route & 0xFF;
    path.flow_label = route >> 8 & 0xFFFFF;
    path.raw_traffic = route >> 31;
    path.traffic_class = wire.traffic_class;
    path.numb_path = wire.reversible_numb_path & 0x7F;
    path.reversible = wire.reversible_numb_path >> 7;
    path.pkey = from_wire(wire.p_key);
    path.sl = from_wire(wire.qos_class_sl) & 0xF;
    path.mtu = wire.mtu & value_bits;
    path.mtu_selector = wire.mtu >> selector_shift;
    path.rate = wire.rate & value_bits;
    path.rate_selector = wire.rate >> selector_shift;
    path.pkt_life_time = wire.packet_lifetime & value_bits;
    path.pkt_life_time_selector = wire.packet_lifetime >> selector_shift;
    path.preference = wire.preference;
    return path;
}

} // namespace ibat
