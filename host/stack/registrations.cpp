#include "host/stack/registrations.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "host/stack/mad-header.h"

namespace stack
{

namespace
{

constexpr size_t most_services = 16;     // of one HCA; limits the memory that clients can use
constexpr size_t most_set_records = 256; // limits the memory if a host's GIDs change again and again
constexpr uint64_t gid_component = uint64_t{1} << SR_COMPONENT_SERVICE_GID;
constexpr size_t data_offset = offsetof(ib_service_record_v2_t, service_data8); // from here to the end of the record
constexpr size_t guid_offset = offsetof(sa_mad_v2_t, payload) + offsetof(ib_service_record_v2_t, service_gid) + 8;

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
bool equal(const field_t& first, const field_t& second)
{
    return std::memcmp(&first, &second, sizeof first) == 0;
}

using service_data = std::array<uint8_t, sizeof(ib_service_record_v2_t) - data_offset>;

service_data data_of(const ib_service_record_v2_t& record)
{
    service_data data;
    std::memcpy(data.data(), reinterpret_cast<const uint8_t*>(&record) + data_offset, data.size());
    return data;
}

// Compares the ServiceData up to the zero byte that follows the last non-zero byte of the Set. The rest may differ:
// OpenSM 3.3.23 does not keep ServiceData64.2. Its answer to a Get has arbitrary bytes there.
bool has_data_of(const ib_service_record_v2_t& sa_record, const ib_service_record_v2_t& set_record)
{
    const service_data sa_data = data_of(sa_record), set_data = data_of(set_record);
    size_t size = set_data.size();
    while (size > 1 && set_data[size - 1] == 0 && set_data[size - 2] == 0) --size;
    return std::memcmp(sa_data.data(), set_data.data(), size) == 0;
}

// Returns true if a record, usually one that the SA returned, has the content that was Set. Three fields are not
// compared. The lease gets shorter with time. The SA hides the ServiceKey from most readers. The SA may store the P_Key
// with or without the membership bit.
bool has_content_of(const ib_service_record_v2_t& sa_record, const ib_service_record_v2_t& set_record)
{
    return equal(sa_record.service_id, set_record.service_id) && equal(sa_record.service_gid, set_record.service_gid) &&
           equal(sa_record.service_name, set_record.service_name) && has_data_of(sa_record, set_record);
}

} // namespace

void registrations::note_request(int port, uint16_t lid, const fabric::mad_bytes& mad)
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
    watched_registration* entry = find(record);
    if (is_set) {
        remember(record);
        if (!entry && entries_.size() >= most_services) return;
        if (!entry) entry = &entries_.emplace_back();
        const bool is_lost =
            entry->state == registration_state::missing || entry->state == registration_state::different;
        const bool is_same = has_content_of(record, entry->record);
        if (is_lost && is_same) ++entry->restores;
        if (!is_same) entry->confirmed_tick.reset();
        entry->record = record;
        entry->port = port;
        entry->sm_lid = lid;
        entry->state = registration_state::asked;
        own_guid_ = guid_in(mad);
    } else if (!entry || !equal(entry->record.service_gid, record.service_gid) ||
               (is_check && entry->is_unanswered && entry->method != MAD_METHOD_GET)) {
        return; // no Set is known, the last Set had another GID, or a Set or a Delete before this Get has no answer
    }
    await(*entry, method, transaction);
    publish();
}

void registrations::note_send_failure(const fabric::mad_bytes& mad)
{
    const mad_hdr_t header = header_of(mad);
    if (!is_of_service_record(header)) return;
    const std::lock_guard lock(mutex_);
    for (watched_registration& entry : entries_) {
        if (!entry.is_unanswered || entry.transaction != from_wire(header.transact_id)) continue;
        entry.is_unanswered = false;
        if (entry.method == MAD_METHOD_SET) entry.state = registration_state::not_sent;
    }
    publish();
}

void registrations::note_answer(const fabric::mad_bytes& mad)
{
    if (!awaits_answer_ && guid_in(mad) != own_guid_) return;
    const mad_hdr_t header = header_of(mad);
    if (!is_of_service_record(header)) return;
    const uint64_t transaction = from_wire(header.transact_id);
    const uint16_t status = from_wire(header.u.ns.status.raw16);
    const ib_service_record_v2_t record = record_in(mad);
    const std::lock_guard lock(mutex_);
    for (watched_registration& entry : entries_) {
        const bool is_awaited = entry.is_unanswered && entry.transaction == transaction;
        const bool shows_record = header.m.method == MAD_METHOD_GET && status == 0 &&
                                  has_content_of(record, entry.record) && entry.state != registration_state::withdrawn;
        if (is_awaited)
            take_answer(entry, status, record);
        else if (shows_record)
            confirm(entry); // the answer to some other Get, for example by address, contains the record
    }
    publish();
}

std::vector<registration> registrations::list() const
{
    const std::lock_guard lock(mutex_);
    return {entries_.begin(), entries_.end()};
}

std::vector<ib_service_record_v2_t> registrations::set_records() const
{
    const std::lock_guard lock(mutex_);
    return set_records_;
}

void registrations::remember(const ib_service_record_v2_t& record)
{
    std::erase_if(set_records_, [&](const ib_service_record_v2_t& each) {
        return equal(each.service_id, record.service_id) && equal(each.service_gid, record.service_gid) &&
               equal(each.service_pkey, record.service_pkey);
    });
    if (set_records_.size() >= most_set_records) set_records_.erase(set_records_.begin());
    set_records_.push_back(record);
}

registrations::watched_registration* registrations::find(const ib_service_record_v2_t& record)
{
    for (watched_registration& entry : entries_)
        if (equal(entry.record.service_id, record.service_id)) return &entry;
    return nullptr;
}

// Notes that a request has no answer yet. If the request repeats an unanswered one, unanswered_tick does not change.
void registrations::await(watched_registration& entry, uint8_t method, uint64_t transaction) const
{
    if (!entry.is_unanswered || entry.method != method) entry.unanswered_tick = exec_.now();
    entry.is_unanswered = true;
    entry.method = method;
    entry.transaction = transaction;
}

void registrations::confirm(watched_registration& entry) const
{
    entry.state = registration_state::confirmed;
    entry.confirmed_tick = exec_.now();
    ++entry.confirmations;
    entry.is_unanswered = false;
}

// Processes the answer to the latest request about the entry's record. If a Delete or a Get fails, only the status
// ERR_NO_RECORDS says something about the record: the SA does not have it. With any other error, the state does not
// change.
void registrations::take_answer(watched_registration& entry, uint16_t status,
                                const ib_service_record_v2_t& record) const
{
    entry.is_unanswered = false;
    entry.status = status;
    if (entry.method == MAD_METHOD_SET) {
        if (status == 0)
            confirm(entry);
        else
            entry.state = registration_state::refused;
    } else if (status == status_word(SA_STATUS_NO_RECORDS)) {
        entry.state = registration_state::missing;
    } else if (status == 0 && entry.method == MAD_METHOD_DELETE) {
        entry.state = registration_state::withdrawn;
    } else if (status == 0) {
        if (has_content_of(record, entry.record)) {
            confirm(entry);
        } else {
            entry.state = registration_state::different;
            entry.sa_record = record;
        }
    }
}

// Updates awaits_answer_. Call it after every change of the entries.
void registrations::publish()
{
    awaits_answer_ = std::ranges::any_of(entries_, &watched_registration::is_unanswered);
}

} // namespace stack
