// Asks the SA through a real port, for tools that run only briefly. The client keeps several requests in flight, and
// sends a request again if it gets no answer. Hosts, which run for a long time, use real_fabric (umad.h) instead.
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

// The answer to a SubnAdmGetTable of ServiceRecords. A long answer comes in segments (RMPP, IBA 13.6), and the kernel
// joins them. Under ibsim, MADs bypass the kernel, and only the first segment arrives.
struct sa_table {
    uint16_t status = 0; // the status word of the answer
    std::vector<ib_service_record_v2_t> records = {};
    bool is_whole = true; // false: further segments are missing
};

// Only one thread may use a client. ask() and ask_table() wait for answers. The text of an error is one line for
// people. The kind `unreachable` means that the SA does not answer. `failed` means that the port cannot be used, or
// that an answer is too long.
class sa_client
{
  public:
    virtual ~sa_client() = default;

    // Sends the requests, with TransactionIDs of its own. Repeats a request without an answer for about three seconds.
    // Returns the answers in the order of the requests; an element is none if the SA has not answered that request.
    virtual ats::result<std::vector<std::optional<sa_mad_v2_t>>> ask(const std::vector<sa_mad_v2_t>& requests) = 0;

    // Does the same for one SubnAdmGetTable of ServiceRecords. Fails with `unreachable` if the SA does not answer.
    virtual ats::result<sa_table> ask_table(const sa_mad_v2_t& request) = 0;

    // The GID of the port, and the LID of its SM at the time when the client was opened.
    virtual fabric::gid_bytes gid() const = 0;
    virtual uint16_t sm_lid() const = 0;

    // The error of an SA that does not answer.
    ats::error silence() const
    {
        return {ats::error_kind::unreachable, "the SA at LID " + std::to_string(sm_lid()) +
                                                  " does not answer: is its subnet manager running, and the master?"};
    }
};

// Builds a request to the SA. Numbers are in host order; `payload` is copied as it is, at most as much as fits into a
// MAD.
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

// Opens a client on an active port. `hca` is the name of an HCA, or "" for any HCA. `port` is the number of a port, or
// 0 for any port. Fails with not_found if there is no such active port, and with failed if the port cannot be opened.
ats::result<std::unique_ptr<sa_client>> open_sa_client(const std::string& hca, int port);

} // namespace umad
