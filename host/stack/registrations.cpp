#include "host/stack/registrations.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace stack
{

namespace
{

constexpr size_t most_services = 16; // of one HCA; a client cannot make a host remember without end
constexpr uint64_t gid_component = uint64_t{1} << SR_COMPONENT_SERVICE_GID;
constexpr size_t guid_offset = offsetof(sa_mad_v2_t, payload) + offsetof(ib_service_record_v2_t, service_gid) + 8;

mad_hdr_t header_of(const fabric::mad_bytes& mad)
{
    mad_hdr_t header;
    std::memcpy(&header, mad.data(), sizeof header);
    return header;
}

bool is_of_service_record(const mad_hdr_t& header)
{
    return header.mgt_class == MAD_CLASS_SUBN_ADM &&
           from_wire(std::bit_cast<be16_t>(header.attrib_id)) == SA_ATTR_SERVICE_RECORD;
}

ib_service_record_v2_t record_in(const fabric::mad_bytes& mad)
{
    ib_service_record_v2_t record;
    std::memcpy(&record, mad.data() + offsetof(sa_mad_v2_t, payload), sizeof record);
    return record;
}

uint64_t component_mask_of(const fabric::mad_bytes& mad)
{
    be64_t mask;
    std::memcpy(&mask, mad.data() + offsetof(sa_mad_v2_t, component_mask), sizeof mask);
    return from_wire(mask);
}

uint64_t guid_in(const fabric::mad_bytes& mad)
{
    uint64_t guid;
    std::memcpy(&guid, mad.data() + guid_offset, sizeof guid);
    return guid;
}

template <class field_t>
bool equal(const field_t& left, const field_t& right)
{
    return std::memcmp(&left, &right, sizeof left) == 0;
}

// True if the SA holds what was registered. The lease runs down, a key is not shown to everybody, and an SA may note
// the P_Key with or without its membership bit.
bool has_content_of(const ib_service_record_v2_t& held, const ib_service_record_v2_t& set)
{
    return equal(held.service_id, set.service_id) && equal(held.service_gid, set.service_gid) &&
           equal(held.service_name, set.service_name) && equal(held.service_data8, set.service_data8) &&
           equal(held.service_data16, set.service_data16) && equal(held.service_data32, set.service_data32) &&
           equal(held.service_data64, set.service_data64);
}

} // namespace

void registrations::leaving(int port, uint16_t lid, const fabric::mad_bytes& mad)
{
    const mad_hdr_t header = header_of(mad);
    if (!is_of_service_record(header)) return;
    const uint8_t method = header.m.method;
    const bool is_set = method == MAD_METHOD_SET;
    const bool is_check =
        method == MAD_METHOD_GET && (component_mask_of(mad) & gid_component) && guid_in(mad) == own_guid_;
    if (!is_set && !is_check && method != MAD_METHOD_DELETE) return;

    const ib_service_record_v2_t record = record_in(mad);
    const uint64_t transaction = from_wire(header.transact_id);
    const std::lock_guard lock(mutex_);
    watched* entry = find(record);
    if (is_set) {
        if (!entry && entries_.size() >= most_services) return;
        if (!entry) entry = &entries_.emplace_back();
        if (!has_content_of(record, entry->record)) entry->confirmed_tick.reset();
        entry->record = record;
        entry->port = port;
        entry->sm_lid = lid;
        entry->state = registration_state::asked;
        own_guid_ = guid_in(mad);
    } else if (!entry || !equal(entry->record.service_gid, record.service_gid) ||
               (is_check && entry->is_unanswered && entry->method != MAD_METHOD_GET)) {
        return; // another GID, or a question about what is just being changed
    }
    await(*entry, method, transaction);
    publish();
}

void registrations::not_taken(const fabric::mad_bytes& mad)
{
    const mad_hdr_t header = header_of(mad);
    if (!is_of_service_record(header)) return;
    const std::lock_guard lock(mutex_);
    for (watched& entry : entries_) {
        if (!entry.is_unanswered || entry.transaction != from_wire(header.transact_id)) continue;
        entry.is_unanswered = false;
        if (entry.method == MAD_METHOD_SET) entry.state = registration_state::not_sent;
    }
    publish();
}

void registrations::arrived(const fabric::mad_bytes& mad)
{
    if (!awaits_answer_ && guid_in(mad) != own_guid_) return;
    const mad_hdr_t header = header_of(mad);
    if (!is_of_service_record(header)) return;
    const uint64_t transaction = from_wire(header.transact_id);
    const uint16_t status = from_wire(header.u.ns.status.raw16);
    const ib_service_record_v2_t record = record_in(mad);
    const std::lock_guard lock(mutex_);
    for (watched& entry : entries_) {
        const bool is_awaited = entry.is_unanswered && entry.transaction == transaction;
        if (is_awaited)
            take_answer(entry, status, record);
        else if (header.m.method == MAD_METHOD_GET && status == 0 && has_content_of(record, entry.record) &&
                 entry.state != registration_state::withdrawn)
            confirm(entry); // the answer to a lookup of this host
    }
    publish();
}

std::vector<registration> registrations::list() const
{
    const std::lock_guard lock(mutex_);
    return {entries_.begin(), entries_.end()};
}

registrations::watched* registrations::find(const ib_service_record_v2_t& record)
{
    for (watched& entry : entries_)
        if (equal(entry.record.service_id, record.service_id)) return &entry;
    return nullptr;
}

// A request that repeats one without an answer has waited since that one left.
void registrations::await(watched& entry, uint8_t method, uint64_t transaction) const
{
    if (!entry.is_unanswered || entry.method != method) entry.unanswered_tick = exec_.now();
    entry.is_unanswered = true;
    entry.method = method;
    entry.transaction = transaction;
}

void registrations::confirm(watched& entry) const
{
    entry.state = registration_state::confirmed;
    entry.confirmed_tick = exec_.now();
    ++entry.confirmations;
    entry.is_unanswered = false;
}

// The answer to the request that waits. A refused Delete and a refused Get say nothing of the record, except that there
// is none.
void registrations::take_answer(watched& entry, uint16_t status, const ib_service_record_v2_t& record) const
{
    entry.is_unanswered = false;
    entry.status = status;
    if (entry.method == MAD_METHOD_SET) {
        if (status == 0) return confirm(entry);
        entry.state = registration_state::refused;
    } else if (status == status_word(SA_STATUS_NO_RECORDS)) {
        entry.state = registration_state::missing;
    } else if (status == 0 && entry.method == MAD_METHOD_DELETE) {
        entry.state = registration_state::withdrawn;
    } else if (status == 0) {
        if (has_content_of(record, entry.record)) return confirm(entry);
        entry.state = registration_state::different;
        entry.held = record;
    }
}

// With the lock held, after every change.
void registrations::publish()
{
    awaits_answer_ = std::ranges::any_of(entries_, &watched::is_unanswered);
}

} // namespace stack
