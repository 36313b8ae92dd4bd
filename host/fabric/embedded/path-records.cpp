#include "host/fabric/embedded/path-records.h"

#include <bit>
#include <optional>

#include "host/fabric/embedded/subnet-hca.h"

namespace embedded
{

namespace
{

constexpr uint64_t component(path_record_component_t bit)
{
    return uint64_t{1} << bit;
}

// The values of a selector (IBA 15.2.5.16).
enum selector_t : uint8_t { greater_than = 0, less_than = 1, exactly = 2, largest = 3 };

// Returns true if the path's `value` satisfies the request. `field` is the byte of the request with the selector (the
// high two bits) and the requested value. A request with a value but no selector asks for exactly this value.
bool is_selected(uint64_t component_mask, path_record_component_t value_bit, path_record_component_t selector_bit,
                 uint8_t field, uint8_t value)
{
    if (!(component_mask & component(value_bit))) return true;
    const bool has_selector = component_mask & component(selector_bit);
    const uint8_t selector = has_selector ? field >> 6 : exactly;
    const uint8_t requested_value = field & 0x3F;
    if (selector == greater_than) return value > requested_value;
    if (selector == less_than) return value < requested_value;
    return selector == largest || value == requested_value;
}

// One end of a path. If the request names no active port, `port` is null and `status` is the status word of the answer.
struct end_of_path {
    const port_record* port = nullptr;
    uint16_t status = 0;
};

// Finds the port that the request names by its GID, by its LID, or by both.
end_of_path find_end(const port_directory& ports, bool has_gid, const wire_gid_t& gid, bool has_lid, be16_t lid)
{
    if (!has_gid && !has_lid) return {.status = status_word(SA_STATUS_REQ_INSUFFICIENT_COMPONENTS)};
    const port_record* by_gid = has_gid ? ports.by_gid(std::to_array(gid.bytes)) : nullptr;
    if (has_gid && !by_gid) return {.status = status_word(SA_STATUS_REQ_INVALID_GID)};
    const port_record* by_lid = has_lid ? ports.by_lid(from_wire(lid)) : by_gid;
    const port_record* port = has_gid ? by_gid : by_lid;
    if (!port || port != by_lid || !port->is_active()) return {.status = status_word(SA_STATUS_NO_RECORDS)};
    return {.port = port};
}

// Returns the P_Key with which `source` can send to `destination`, or none. Both ports must be in the partition of this
// P_Key, and at least one must be a full member (IBA 10.9.3). If `requested_p_key` is set, it must name that partition.
std::optional<uint16_t> shared_p_key(const port_record& source, const port_record& destination,
                                     std::optional<uint16_t> requested_p_key)
{
    constexpr uint16_t full_member = 0x8000;
    constexpr uint16_t partition = 0x7FFF;
    for (const uint16_t own : source.p_keys)
        for (const uint16_t other : destination.p_keys) {
            const bool is_shared =
                (own & partition) != 0 && ((own ^ other) & partition) == 0 && ((own | other) & full_member);
            if (is_shared && (!requested_p_key || ((own ^ *requested_p_key) & partition) == 0)) return own;
        }
    return std::nullopt;
}

constexpr uint32_t raw_traffic_bit = 0x80000000, flow_label_bits = 0x0FFFFF00, hop_limit_bits = 0xFF;
constexpr uint16_t sl_bits = 0xF;

// Returns true if the request asks for a route that no path of this subnet has: raw traffic, an SL other than 0, or
// values of a GRH (flow label, hop limit, traffic class) other than 0.
bool asks_for_other_route(uint64_t component_mask, const ib_path_record_wire_t& record)
{
    const auto selects = [&](path_record_component_t bit) { return (component_mask & component(bit)) != 0; };
    const uint32_t route = from_wire(record.route);
    return (selects(PR_COMPONENT_RAW_TRAFFIC) && (route & raw_traffic_bit)) ||
           (selects(PR_COMPONENT_FLOW_LABEL) && (route & flow_label_bits)) ||
           (selects(PR_COMPONENT_HOP_LIMIT) && (route & hop_limit_bits)) ||
           (selects(PR_COMPONENT_TRAFFIC_CLASS) && record.traffic_class != 0) ||
           (selects(PR_COMPONENT_SL) && (from_wire(record.qos_class_sl) & sl_bits));
}

} // namespace

uint16_t find_path(const port_directory& ports, const path_attributes& attributes, uint64_t component_mask,
                   ib_path_record_wire_t& record)
{
    const auto selects = [&](path_record_component_t bit) { return (component_mask & component(bit)) != 0; };
    constexpr uint8_t numb_path_bits = 0x7F;
    if (selects(PR_COMPONENT_NUMB_PATH) && (record.reversible_numb_path & numb_path_bits) == 0)
        return status_word(SA_STATUS_REQ_INVALID);

    const auto [source, source_status] =
        find_end(ports, selects(PR_COMPONENT_SGID), record.sgid, selects(PR_COMPONENT_SLID), record.slid);
    if (!source) return source_status;
    const auto [destination, destination_status] =
        find_end(ports, selects(PR_COMPONENT_DGID), record.dgid, selects(PR_COMPONENT_DLID), record.dlid);
    if (!destination) return destination_status;

    const auto requested_p_key = selects(PR_COMPONENT_P_KEY) ? std::optional(from_wire(record.p_key)) : std::nullopt;
    const std::optional<uint16_t> p_key = shared_p_key(*source, *destination, requested_p_key);
    const bool is_as_requested =
        !asks_for_other_route(component_mask, record) &&
        is_selected(component_mask, PR_COMPONENT_MTU, PR_COMPONENT_MTU_SELECTOR, record.mtu, attributes.mtu) &&
        is_selected(component_mask, PR_COMPONENT_RATE, PR_COMPONENT_RATE_SELECTOR, record.rate, attributes.rate) &&
        is_selected(component_mask, PR_COMPONENT_PACKET_LIFETIME, PR_COMPONENT_PACKET_LIFETIME_SELECTOR,
                    record.packet_lifetime, attributes.packet_lifetime);
    if (!p_key || !is_as_requested) return status_word(SA_STATUS_NO_RECORDS);

    constexpr uint8_t exactly_bits = exactly << 6;
    constexpr uint8_t reversible_one_path = 0x81;
    record = {.service_id = {},
              .dgid = std::bit_cast<wire_gid_t>(destination->gid),
              .sgid = std::bit_cast<wire_gid_t>(source->gid),
              .dlid = to_wire(destination->lid),
              .slid = to_wire(source->lid),
              .route = {},
              .traffic_class = 0,
              .reversible_numb_path = reversible_one_path,
              .p_key = to_wire(*p_key),
              .qos_class_sl = {},
              .mtu = static_cast<uint8_t>(exactly_bits | attributes.mtu),
              .rate = static_cast<uint8_t>(exactly_bits | attributes.rate),
              .packet_lifetime = static_cast<uint8_t>(exactly_bits | attributes.packet_lifetime),
              .preference = 0,
              .reserved = {}};
    return 0;
}

} // namespace embedded
