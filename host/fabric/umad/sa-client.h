// Asks the SA through a real port, for tools that run only briefly. It keeps many requests in flight and resends each
// one until it is answered. Hosts that run for long use real_fabric.
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

// The answer to a SubnAdmGetTable of ServiceRecords. A long answer comes in segments (RMPP, IBA 13.6); the kernel joins
// them. Under ibsim, MADs bypass the kernel and only the first segment arrives.
struct sa_table {
    uint16_t status = 0;
    std::vector<ib_service_record_v2_t> records = {};
    bool is_whole = true; // false: further segments are missing
};

// For one thread. Its calls wait for answers. Errors are one line for people. `unreachable` means that the SA does not
// answer. `failed` means that the port cannot be used or an answer is unreasonably long.
class sa_client
{
  public:
    virtual ~sa_client() = default;

    // Sends the requests and sets their TransactionIDs. Repeats a request without an answer for some seconds. Returns
    // the answers in the order of the requests.
    virtual ats::result<std::vector<std::optional<sa_mad_v2_t>>> ask(const std::vector<sa_mad_v2_t>& requests) = 0;
    virtual ats::result<sa_table> ask_table(const sa_mad_v2_t& request) = 0;

    // The port's GID and the LID of its SM when the client was opened.
    virtual fabric::gid_bytes gid() const = 0;
    virtual uint16_t sm_lid() const = 0;

    // The error of an SA that does not answer.
    ats::error silence() const
    {
        return {ats::error_kind::unreachable, "the SA at LID " + std::to_string(sm_lid()) +
                                                  " does not answer: is its subnet manager running, and the master?"};
    }
};

// A request to the SA. The payload is cut to the size of a MAD's payload.
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

// Opens a client on an active port. `hca` is the name of the HCA, or "" for any; `port` is its number, or 0 for any.
// Fails with not_found if there is no such active port, and with failed if it cannot be opened.
ats::result<std::unique_ptr<sa_client>> open_sa_client(const std::string& hca, int port);

} // namespace umad
