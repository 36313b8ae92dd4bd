// Builds requests to an SA and reads its answers. Also has a fabric::listener that records arrivals, link changes and
// SM changes.
#pragma once

#include <bit>
#include <cstring>
#include <string>
#include <vector>

#include "host/fabric/fabric.h"
#include "records/host-record.h"
#include "sa-mads.h"

namespace test
{

constexpr uint64_t mask_all = UINT64_MAX;
constexpr uint64_t mask_gid_lookup = 0x43;
constexpr uint64_t mask_address_lookup = 0x7FFFC1;

constexpr uint8_t get_response = MAD_METHOD_GET | MAD_METHOD_RESPONSE;
constexpr uint8_t delete_response = MAD_METHOD_DELETE | MAD_METHOD_RESPONSE;

using record_t = ib_service_record_v2_t;

inline fabric::gid_bytes gid_number(int number)
{
    fabric::gid_bytes gid{0xFE, 0x80};
    gid[14] = static_cast<uint8_t>(number >> 8);
    gid[15] = static_cast<uint8_t>(number);
    return gid;
}

// The record of a host with the address 10.0.0.`octet`.
inline record_t host_record(const fabric::gid_bytes& gid, uint8_t octet, uint16_t p_key = 0xFFFF,
                            uint32_t lease = UINT32_MAX)
{
    record_t record = records::encode({.gid = from_wire(std::bit_cast<wire_gid_t>(gid)),
                                       .p_key = p_key,
                                       .address = std::bit_cast<uint32_t>(std::array<uint8_t, 4>{10, 0, 0, octet}),
                                       .host_name = "node" + std::to_string(octet % 10)});
    record.service_lease = to_wire(lease);
    return record;
}

// A request for a ServiceRecord, in wire order.
inline sa_mad_v2_t request(uint8_t method, uint64_t component_mask, const record_t& record, uint64_t transaction = 7)
{
    sa_mad_v2_t mad{};
    mad.hdr.base_ver = MAD_BASE_VERSION;
    mad.hdr.mgt_class = MAD_CLASS_SUBN_ADM;
    mad.hdr.class_ver = MAD_CLASS_VERSION_SUBN_ADM;
    mad.hdr.m.method = method & 0x7F;
    mad.hdr.transact_id = to_wire(transaction);
    mad.hdr.attrib_id = std::bit_cast<uint16_t>(to_wire(SA_ATTR_SERVICE_RECORD));
    mad.component_mask = to_wire(component_mask);
    memcpy(mad.payload, &record, sizeof record);
    return mad;
}

inline fabric::mad_bytes bytes_of(const sa_mad_v2_t& mad)
{
    return std::bit_cast<fabric::mad_bytes>(mad);
}

inline record_t record_in(const sa_mad_v2_t& mad)
{
    record_t record;
    memcpy(&record, mad.payload, sizeof record);
    return record;
}

inline uint8_t method_of(const sa_mad_v2_t& mad)
{
    return bytes_of(mad)[3];
}

inline bool same(const record_t& a, const record_t& b)
{
    return memcmp(&a, &b, sizeof a) == 0;
}

struct recording_listener final : fabric::listener {
    struct arrival {
        int port;
        fabric::address source;
        sa_mad_v2_t mad;
        uint64_t transaction() const { return from_wire(mad.hdr.transact_id); }
        uint16_t status() const { return from_wire(mad.hdr.u.ns.status.raw16); }
    };
    std::vector<arrival> arrivals;
    std::vector<std::string> changes; // "up 1", "down 2"; "sm 1 to 9": the SM of port 1 now has LID 9

    void mad_arrived(int port, const fabric::address& source, const fabric::mad_bytes& mad) override
    {
        arrivals.push_back({port, source, std::bit_cast<sa_mad_v2_t>(mad)});
    }
    void port_changed(int port, fabric::port_change change, uint16_t new_sm_lid) override
    {
        const std::string number = std::to_string(port);
        if (change == fabric::port_change::link_up) changes.push_back("up " + number);
        if (change == fabric::port_change::link_down) changes.push_back("down " + number);
        if (change == fabric::port_change::sm_change)
            changes.push_back("sm " + number + " to " + std::to_string(new_sm_lid));
    }

    std::vector<uint64_t> transactions() const
    {
        std::vector<uint64_t> list;
        for (const arrival& each : arrivals) list.push_back(each.transaction());
        return list;
    }
};

} // namespace test
