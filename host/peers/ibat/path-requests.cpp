// The path resolver's requests, from the first asker to the last callback.
#include "host/peers/ibat/path-records.h"
#include "host/peers/ibat/path-resolver.h"

namespace ibat
{
namespace
{

constexpr uint8_t get_response = MAD_METHOD_GET | MAD_METHOD_RESPONSE;

uint8_t method_of(const sa_mad_v2_t& mad)
{
    return static_cast<uint8_t>(mad.hdr.m.r << 7 | mad.hdr.m.method);
}

// Returns true if the SA says that there is no such path.
bool is_absence(uint16_t status)
{
    return status == status_word(SA_STATUS_NO_RECORDS) || status == status_word(SA_STATUS_REQ_INVALID_GID);
}

// Returns true if a later request may get a better answer.
bool is_temporary(uint16_t status)
{
    return (status & MAD_STATUS_COMMON_BITS) == MAD_STATUS_BUSY || status == status_word(SA_STATUS_NO_RESOURCES);
}

} // namespace

// ---- requests ----

// Joins or makes the request for the path. If `arp_data` is null, skips the cache.
ibat_stat_t path_resolver::ask(const kq_gid_t& gid, ibat_arp_data_t* arp_data, ibat_get_ib_data_reply_fn_t callback,
                               void* context)
{
    source_port source;
    uint64_t generation;
    if (!find_source(&source, &generation)) return ibat_stat_no_port;
    uint64_t request_id = 0; // of a new request; the caller sends it
    const ibat_stat_t status = requests_.ask(
        gid, callback, context,
        // An answer may have arrived in between.
        [&] { return arp_data ? from_cache(gid, arp_data) : ibat_stat_pending; },
        [&](path_request* request) {
            request->serial = 0;
            request_id = request->id;
        });
    if (request_id != 0) send(gid, request_id);
    return status;
}

int32_t path_resolver::cancel(ibat_get_ib_data_reply_fn_t callback, void* context)
{
    if (!is_open()) return 0;
    return requests_.cancel(callback, context, [this](path_request* request) { give_up(request, ibat_stat_error); });
}

// ---- attempts and their deadlines ----

// Sends the next attempt of a request. Without the lock, the request may end at any moment, and its memory is then
// freed. Therefore it is looked up again.
void path_resolver::send(const kq_gid_t& gid, uint64_t request_id)
{
    attempt attempt;
    if (!begin_attempt(gid, request_id, &attempt)) return;
    const bool was_sent = ports_.send(attempt.source, path_request_mad(attempt.source, gid, attempt.serial));
    spin_guard guard(&lock_);
    if (!was_sent)
        ++counters_.refused;
    else if (attempt.is_retry)
        ++counters_.retries;
    else
        ++counters_.requests;
    path_request* request = requests_.find(gid, request_id);
    if (!request) return;
    request->was_sent |= was_sent;
    await_answer(request);
}

// Counts an attempt and gives it a serial number. Returns false if the request has ended. If no port is active, ends
// the request and returns false.
bool path_resolver::begin_attempt(const kq_gid_t& gid, uint64_t request_id, attempt* attempt)
{
    while (true) {
        uint64_t generation;
        const bool has_source = find_source(&attempt->source, &generation);
        spin_guard guard(&lock_);
        path_request* request = requests_.find(gid, request_id);
        if (!request) return false;
        if (!has_source) {
            give_up(request, ibat_stat_no_port);
            return false;
        }
        if (generation != generation_) continue; // an event has made the source port invalid
        assert(request->serial == 0 && request->attempts < limits_.attempts);
        request->serial = free_serial();
        request->port_number = attempt->source.number;
        requests_by_serial_.insert(request);
        attempt->serial = request->serial;
        attempt->is_retry = request->attempts++ > 0;
        return true;
    }
}

// Returns a number that no attempt has. The caller holds the lock.
uint32_t path_resolver::free_serial()
{
    do last_serial_ = last_serial_ == gsi_joined_transaction_bits ? 1 : last_serial_ + 1;
    while (requests_by_serial_.find(last_serial_));
    return last_serial_;
}

// Invalidates the attempt: its answer is ignored from now on. The caller holds the lock.
void path_resolver::void_attempt(path_request* request)
{
    if (request->serial == 0) return;
    requests_by_serial_.remove(request);
    request->serial = 0;
}

// Makes a request wait for its answer until the next attempt. If every attempt was refused, gives it up at once. The
// caller holds the lock.
void path_resolver::await_answer(path_request* request)
{
    if (!request->was_sent && request->attempts >= limits_.attempts) {
        give_up(request, ibat_stat_error);
        return;
    }
    if (request->serial == 0)
        requests_.hurry(request); // an event came during the attempt: repeat it at once
    else
        requests_.wait(request, limits_.retry_ticks);
}

// The retry timer's handler. May sleep.
void path_resolver::retry_due()
{
    kq_gid_t gid;
    uint64_t request_id;
    while (next_due(&gid, &request_id)) send(gid, request_id);
}

// Gives up the due requests that have no attempt left. Returns true if another request is due; the caller then sends
// its next attempt.
bool path_resolver::next_due(kq_gid_t* gid, uint64_t* request_id)
{
    spin_guard guard(&lock_);
    while (path_request* request = requests_.take_due()) {
        void_attempt(request);
        if (request->attempts < limits_.attempts) {
            *gid = request->gid;
            *request_id = request->id;
            return true;
        }
        ++counters_.timeouts;
        give_up(request, ibat_stat_timeout);
    }
    return false;
}

// ---- answers ----

void path_resolver::take_answer(const sa_mad_v2_t& mad)
{
    const auto serial = static_cast<uint32_t>(from_wire(mad.hdr.transact_id) & gsi_joined_transaction_bits);
    const uint16_t status = from_wire(mad.hdr.u.ns.status.raw16);
    spin_guard guard(&lock_);
    path_request* request = serial != 0 ? requests_by_serial_.find(serial) : nullptr;
    if (!request || method_of(mad) != get_response || mad.hdr.attrib_id != SA_ATTR_PATH_RECORD) {
        ++counters_.strays;
        return;
    }
    const ib_path_record_v2_t path = path_in(mad);
    assert(has_source_); // an attempt with an invalid source has no serial number
    // A path without a DLID is not usable (IBA 4.1.3).
    const bool is_path =
        status == 0 && path.dgid == request->gid && path.sgid == source_.gid && path.dlid != 0 && path.slid != 0;
    if (is_path) return take_path(request, path);
    if (is_absence(status)) {
        ++counters_.absences;
        cache_.forget(request->gid);
        return give_up(request, ibat_stat_no_path);
    }
    ++counters_.errors;
    if (status == 0 || is_temporary(status))
        void_attempt(request); // the next attempt follows at the deadline
    else
        give_up(request, ibat_stat_refused);
}

// The caller holds the lock.
void path_resolver::take_path(path_request* request, const ib_path_record_v2_t& path)
{
    ++counters_.answers;
    cache_.store(request->gid, path, request->port_number);
    ibat_arp_data_t answer{};
    fill_path_record(request->gid, path, request->port_number, &answer);
    complete(request, ibat_stat_ok, answer);
}

// Ends a request. The caller holds the lock.
void path_resolver::complete(path_request* request, ibat_stat_t status, const ibat_arp_data_t& answer)
{
    void_attempt(request);
    requests_.end(request, status, answer);
}

void path_resolver::give_up(path_request* request, ibat_stat_t status)
{
    complete(request, status, gid_record(request->gid));
}

} // namespace ibat
