#include "host/stack/sa-traffic.h"

#include <algorithm>
#include <bit>

#include "host/exec/brief-lock.h"
#include "host/stack/mad-header.h"

namespace stack
{

namespace
{

sa_request kind_of(const mad_hdr_t& header)
{
    const uint16_t attribute = from_wire(std::bit_cast<be16_t>(header.attrib_id));
    const uint8_t method = header.m.method;
    if (attribute == SA_ATTR_PATH_RECORD && method == MAD_METHOD_GET) return sa_request::get_path;
    if (attribute != SA_ATTR_SERVICE_RECORD) return sa_request::other;
    if (method == MAD_METHOD_SET) return sa_request::set_service;
    if (method == MAD_METHOD_GET) return sa_request::get_service;
    return method == MAD_METHOD_DELETE ? sa_request::delete_service : sa_request::other;
}

// Returns an index into sa_status_texts. The low byte of a status has codes that are common to all classes, for example
// busy. The high byte has the codes of the SA.
size_t status_index(uint16_t status)
{
    constexpr uint16_t busy = 1;
    constexpr size_t busy_index = 1, other_index = sa_status_count - 1;
    if (status == 0) return 0;
    if (status == busy) return busy_index;
    const size_t index = busy_index + (status >> 8);
    return (status & 0xFF) == 0 && index < other_index ? index : other_index;
}

bool is_for_sa(const mad_hdr_t& header)
{
    return header.mgt_class == MAD_CLASS_SUBN_ADM;
}

template <class counters_t, class numbers_t>
void copy(const counters_t& counters, numbers_t& numbers)
{
    std::ranges::transform(counters, numbers.begin(),
                           [](const auto& counter) { return counter.load(std::memory_order_relaxed); });
}

} // namespace

const std::array<sa_kind_text, sa_request_count> sa_request_texts = {{{"set", "ServiceRecord"},
                                                                      {"get", "ServiceRecord"},
                                                                      {"delete", "ServiceRecord"},
                                                                      {"get", "PathRecord"},
                                                                      {"other", "other"}}};

const std::array<const char*, sa_status_count> sa_status_texts = {"ok",           "busy",
                                                                  "no_resources", "invalid_request",
                                                                  "no_records",   "too_many_records",
                                                                  "invalid_gid",  "insufficient_components",
                                                                  "denied",       "other"};

void sa_traffic::count_request(const fabric::mad_bytes& mad)
{
    const mad_hdr_t header = header_of(mad);
    if (!is_for_sa(header)) return;
    exec::count(requests_[static_cast<size_t>(kind_of(header))]);
}

void sa_traffic::count_answer(const fabric::mad_bytes& mad)
{
    const mad_hdr_t header = header_of(mad);
    if (!is_for_sa(header)) return;
    exec::count(answers_[status_index(from_wire(header.u.ns.status.raw16))]);
}

sa_counts sa_traffic::counts() const
{
    sa_counts counts;
    copy(requests_, counts.requests);
    copy(answers_, counts.answers);
    return counts;
}

} // namespace stack
