#include "host/fabric/umad/self-query.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "mad.h"

namespace umad
{

namespace
{

// A directed-route SMP (IBA 14.2.1.2).
struct directed_route_smp {
    mad_hdr_t hdr; // u.ns.reserved contains the hop pointer and the hop count
    be64_t m_key;
    be16_t dr_source_lid;
    be16_t dr_destination_lid;
    uint8_t reserved[28];
    uint8_t attribute[64];
    uint8_t initial_path[64];
    uint8_t return_path[64];
};
static_assert(sizeof(directed_route_smp) == MAD_SIZE && offsetof(directed_route_smp, attribute) == 64);

constexpr uint16_t permissive_lid = 0xFFFF;
constexpr size_t guids_in_block = 8;
constexpr size_t p_keys_in_block = 32;

// AttributeIDs of SMPs (IBA 14.2.5).
constexpr uint16_t attribute_node_info = 0x0011;
constexpr uint16_t attribute_guid_info = 0x0014;
constexpr uint16_t attribute_port_info = 0x0015;
constexpr uint16_t attribute_p_key_table = 0x0016;

template <class number_t>
number_t number_at(const uint8_t* bytes)
{
    number_t number;
    std::memcpy(&number, bytes, sizeof number);
    return number;
}
uint16_t number16(const uint8_t* bytes)
{
    return from_wire(number_at<be16_t>(bytes));
}
uint64_t number64(const uint8_t* bytes)
{
    return from_wire(number_at<be64_t>(bytes));
}

// Converts PortInfo.PortState (IBA 14.2.5.6). State 5 (ActiveDefer) means that the link has an error that may pass.
// Such a port counts as active.
fabric::link_state state_of(uint8_t port_state)
{
    constexpr uint8_t active_deferred = 5;
    return port_state == active_deferred ? fabric::link_state::active : fabric::link_state_of(port_state);
}

uint8_t vls_of(uint8_t vl_cap)
{
    constexpr uint8_t table[] = {1, 1, 2, 4, 8, 15};
    return vl_cap < std::size(table) ? table[vl_cap] : 1;
}

} // namespace

void self_query::restart(look kind)
{
    kind_ = kind;
    restart_with(kind == look::whole ? question::node_info : question::port_info);
}

void self_query::restart_with(question first)
{
    question_ = first;
    p_key_block_ = 0;
    attributes_ = {};
}

fabric::mad_bytes self_query::next_question()
{
    directed_route_smp smp{};
    smp.hdr.base_ver = MAD_BASE_VERSION;
    smp.hdr.mgt_class = class_directed_route;
    smp.hdr.class_ver = class_version_smp;
    smp.hdr.m.method = MAD_METHOD_GET;
    smp.hdr.transact_id = to_wire(uint64_t{++transaction_});
    smp.dr_source_lid = smp.dr_destination_lid = to_wire(permissive_lid);

    uint16_t attribute = attribute_node_info;
    uint32_t modifier = 0;
    if (question_ == question::port_info) {
        attribute = attribute_port_info;
        modifier = static_cast<uint32_t>(port_);
    } else if (question_ == question::guids) {
        attribute = attribute_guid_info;
    } else if (question_ == question::p_keys) {
        attribute = attribute_p_key_table;
        modifier = p_key_block_;
    }
    smp.hdr.attrib_id = std::bit_cast<uint16_t>(to_wire(attribute));
    smp.hdr.attrib_modifier = to_wire(modifier);
    return std::bit_cast<fabric::mad_bytes>(smp);
}

bool self_query::accept(const fabric::mad_bytes& answer)
{
    const auto smp = std::bit_cast<directed_route_smp>(answer);
    constexpr uint8_t status_bits = 0x7F; // IBA 14.2.1.2: the highest bit is the direction
    const uint8_t* status = smp.hdr.u.ns.status.raw16.bytes;
    const bool is_awaited = smp.hdr.m.r && static_cast<uint32_t>(from_wire(smp.hdr.transact_id)) == transaction_ &&
                            question_ != question::none;
    if (!is_awaited || (status[0] & status_bits) != 0 || status[1] != 0) return false;

    switch (question_) {
    case question::node_info:
        accept_node(smp.attribute);
        break;
    case question::port_info:
        accept_port(smp.attribute);
        break;
    case question::guids:
        accept_guids(smp.attribute);
        break;
    default:
        accept_p_keys(smp.attribute);
        break;
    }
    return true;
}

void self_query::accept_node(const uint8_t* node_info)
{
    constexpr size_t partition_cap = 28;
    const uint16_t p_keys = number16(node_info + partition_cap);
    p_key_blocks_ = static_cast<uint16_t>(std::max<size_t>(1, (p_keys + p_keys_in_block - 1) / p_keys_in_block));
    question_ = question::port_info;
}

void self_query::accept_port(const uint8_t* port_info)
{
    std::copy_n(port_info, port_info_.size(), port_info_.begin());
    if (kind_ == look::brief) {
        const bool is_known = port_info_ == known_port_info_;
        restart_with(is_known ? question::none : question::node_info);
        kind_ = look::whole;
        if (is_known) attributes_ = known_attributes_;
        return;
    }
    gid_prefix_ = number64(port_info + 8);
    attributes_.lid = number16(port_info + 16);
    attributes_.sm_lid = number16(port_info + 18);
    attributes_.capability_mask = from_wire(number_at<be32_t>(port_info + 20));
    attributes_.state = state_of(port_info[32] & 0x0F);
    attributes_.lmc = port_info[34] & 0x07;
    attributes_.mtu = port_info[36] >> 4;
    attributes_.sm_sl = port_info[36] & 0x0F;
    attributes_.max_vls = vls_of(port_info[37] >> 4);
    attributes_.bad_p_keys = number16(port_info + 46);
    attributes_.bad_q_keys = number16(port_info + 48);
    question_ = question::guids;
}

void self_query::accept_guids(const uint8_t* block)
{
    size_t used_entries = 1;
    for (size_t i = 0; i < guids_in_block; ++i)
        if (number64(block + i * 8) != 0) used_entries = i + 1;
    for (size_t i = 0; i < used_entries; ++i)
        attributes_.gids.push_back(fabric::make_gid(gid_prefix_, number64(block + i * 8)));
    question_ = question::p_keys;
}

void self_query::accept_p_keys(const uint8_t* block)
{
    for (size_t i = 0; i < p_keys_in_block; ++i) attributes_.p_keys.push_back(number16(block + i * 2));
    if (++p_key_block_ < p_key_blocks_) return;
    // Remove unused entries at the end. Keep unused entries before used ones, because an entry must keep its index.
    while (!attributes_.p_keys.empty() && attributes_.p_keys.back() == 0) attributes_.p_keys.pop_back();
    question_ = question::none;
    known_port_info_ = port_info_;
    known_attributes_ = attributes_;
}

std::optional<fabric::port_attributes> self_query::result() const
{
    if (question_ != question::none) return std::nullopt;
    return attributes_;
}

} // namespace umad
