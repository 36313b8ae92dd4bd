// Asks the SA through a real port, for tools that run for a moment: many requests in flight, each sent again until it
// is answered. Hosts that stay use real_fabric.
#pragma once

#include <algorithm>
#include <bit>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/fabric/fabric.h"
#include "host/result.h"
#include "sa-mads.h"

namespace umad
{

// The answer to a SubnAdmGetTable of ServiceRecords. A long one comes in segments (RMPP, IBA 13.6), which the kernel
// puts together. Where MADs are carried without the kernel (ibsim), only the first segment arrives.
struct sa_table {
    uint16_t status = 0;
    std::vector<ib_service_record_v2_t> records = {};
    bool is_whole = true; // false: further segments are missing
};

// For one thread. Its calls wait for answers. Errors are one line for people: `unreachable`, if the SA does not answer;
// `failed`, if the port cannot be used or an answer is longer than any sensible one.
class sa_client
{
  public:
    virtual ~sa_client() = default;

    // Returns the answers in the order of the requests, whose TransactionIDs it sets. A request that stays unanswered,
    // though sent again for some seconds, has none.
    virtual ats::result<std::vector<std::optional<sa_mad_v2_t>>> ask(const std::vector<sa_mad_v2_t>& requests) = 0;
    virtual ats::result<sa_table> ask_table(const sa_mad_v2_t& request) = 0;

    // The port's GID and the LID of its SM, at the time of opening.
    virtual fabric::gid_bytes gid() const = 0;
    virtual uint16_t sm_lid() const = 0;

    // The error of an SA that does not answer.
    ats::error silence() const
    {
        return {ats::error_kind::unreachable, "the SA at LID " + std::to_string(sm_lid()) +
                                                  " does not answer: is its subnet manager running, and the master?"};
    }
};

// A request to the SA; the payload is cut to the size of a MAD's payload.
inline sa_mad_v2_t make_sa_request(uint8_t method, uint16_t attribute, uint64_t component_mask, const void* payload,
                                   size_t payload_size)
{
    sa_mad_v2_t mad{};
    mad.hdr.base_ver = MAD_BASE_VERSION;
    mad.hdr.mgt_class = MAD_CLASS_SUBN_ADM;
    mad.hdr.class_ver = MAD_CLASS_VERSION_SUBN_ADM;
    mad.hdr.m.method = method & 0x7F;
    mad.hdr.attrib_id = std::bit_cast<uint16_t>(to_wire(attribute));
    mad.component_mask = to_wire(component_mask);
    if (payload_size > 0) std::memcpy(mad.payload, payload, std::min(payload_size, sizeof mad.payload));
    return mad;
}

// Opens a client on an active port: of the HCA named, or of any ("" ); with that number, or any (0). Error: not_found,
// if there is no such active port; failed, if it cannot be opened.
ats::result<std::unique_ptr<sa_client>> open_sa_client(const std::string& hca, int port);

} // namespace umad
