// Asks the SA through a real port, for tools that come and go: many requests in flight, each sent again until it is
// answered. For hosts there is real_fabric.
#pragma once

#include <algorithm>
#include <bit>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/fabric/fabric.h"
#include "sa-mads.h"

namespace umad
{

// The answer to a SubnAdmGetTable of ServiceRecords. A long one comes in segments (RMPP, IBA 13.6), which the kernel
// puts together; who carries MADs without the kernel (ibsim) delivers the first segment only.
struct sa_table {
    uint16_t status = 0;
    std::vector<ib_service_record_v2_t> records = {};
    bool is_whole = true;
};

// One thread. Asking throws std::runtime_error with one line when the port fails, or the answer is longer than any that
// makes sense.
class sa_client
{
  public:
    virtual ~sa_client() = default;

    // The answers in the order of the requests, whose TransactionIDs are set on the way; none for a request that was
    // sent again and again for some seconds and never answered.
    virtual std::vector<std::optional<sa_mad_v2_t>> ask(const std::vector<sa_mad_v2_t>& requests) = 0;
    virtual std::optional<sa_table> ask_table(const sa_mad_v2_t& request) = 0;

    // The port's own, at the time of opening.
    virtual fabric::gid_bytes gid() const = 0;
    virtual uint16_t sm_lid() const = 0;
};

// A request to the SA, of which attribute, method, mask and payload make the difference.
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

// A client, or one line that says what is in the way and what to do about it.
struct opened_sa_client {
    std::unique_ptr<sa_client> client;
    std::string why;
};

// "" and 0: the first active port there is.
opened_sa_client open_sa_client(const std::string& hca, int port);

} // namespace umad
