// Implements the requests of class path_resolver, from the first caller that asks to the last callback.
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

// Answers from the cache if `arp_data` is not null and the cache has the path. Otherwise adds the caller to the request
// for the path, and makes and sends this request if there is none. Returns ibat_stat_no_port if no port is active, or
// ibat_stat_error if there is no memory.
ibat_stat_t path_resolver::ask(const kq_gid_t& gid, ibat_arp_data_t* arp_data, ibat_get_ib_data_reply_fn_t callback,
                               void* context)
{
    source_port source;
    uint64_t generation;
    if (!find_source(&source, &generation)) return ibat_stat_no_port;
    uint64_t request_id = 0; // the ID of the request if it is new; 0 if not
    const ibat_stat_t status = requests_.ask(
        gid, callback, context,
        // An answer may have arrived since get() has searched the cache.
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

// Sends the next attempt of a request. While this function does not hold the lock, the request may end and be freed.
// Therefore it searches for the request again afterwards. The caller does not hold the lock. May sleep.
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
    await_answer(request, attempt.generation);
}

// Counts an attempt, gives it a serial number and fills `*attempt`. Returns false if the request has ended. If no port
// is active, ends the request and returns false. May sleep.
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
        if (generation != generation_) continue; // the source port may have changed since find_source()
        assert(request->serial == 0 && request->attempts < limits_.attempts);
        request->serial = free_serial();
        request->port_number = attempt->source.number;
        requests_by_serial_.insert(request);
        attempt->generation = generation;
        attempt->serial = request->serial;
        attempt->is_retry = request->attempts++ > 0;
        return true;
    }
}

// Returns a serial number that no waiting attempt has. The caller holds the lock.
uint32_t path_resolver::free_serial()
{
    do last_serial_ = last_serial_ == gsi_joined_transaction_bits ? 1 : last_serial_ + 1;
    while (requests_by_serial_.find(last_serial_));
    return last_serial_;
}

// From here on, an answer to the request's latest attempt is ignored. The caller holds the lock.
void path_resolver::invalidate_attempt(path_request* request)
{
    if (request->serial == 0) return;
    requests_by_serial_.remove(request);
    request->serial = 0;
}

// Call it after an attempt. Puts the request into the waiting list until its next attempt or its time-out is due. But
// if that was the last attempt and no attempt could be sent, ends the request. `generation` is generation_ at the
// beginning of the attempt. If generation_ has changed since then, the next attempt is due at once. The caller holds
// the lock.
void path_resolver::await_answer(path_request* request, uint64_t generation)
{
    if (!request->was_sent && request->attempts >= limits_.attempts) {
        give_up(request, ibat_stat_error);
        return;
    }
    if (generation != generation_)
        requests_.hurry(request);
    else
        requests_.move_to_waiting(request, limits_.retry_ticks);
}

// The handler of the timer in requests_. May sleep.
void path_resolver::retry_due()
{
    kq_gid_t gid;
    uint64_t request_id;
    while (next_due(&gid, &request_id)) send(gid, request_id);
}

// Looks for a request whose deadline has come and that has an attempt left. If there is one, stores its GID and ID and
// returns true. The caller then sends the next attempt of this request. Ends requests whose deadline has come and that
// have no attempt left.
bool path_resolver::next_due(kq_gid_t* gid, uint64_t* request_id)
{
    spin_guard guard(&lock_);
    while (path_request* request = requests_.take_due()) {
        invalidate_attempt(request);
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
    assert(has_source_); // leave_source() sets the serial numbers of all attempts to 0
    // A path with a LID of 0 is not usable: 0 is reserved (IBA 4.1.3).
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
        invalidate_attempt(request); // next_due() handles the request at its deadline
    else
        give_up(request, ibat_stat_refused);
}

// Stores the path of an answer in the cache, and ends the request with it. The caller holds the lock.
void path_resolver::take_path(path_request* request, const ib_path_record_v2_t& path)
{
    ++counters_.answers;
    cache_.store(request->gid, path, request->port_number);
    ibat_arp_data_t answer{};
    fill_path_record(request->gid, path, request->port_number, &answer);
    complete(request, ibat_stat_ok, answer);
}

// Ends a request: the callbacks get `status` and `answer`. The caller holds the lock.
void path_resolver::complete(path_request* request, ibat_stat_t status, const ibat_arp_data_t& answer)
{
    invalidate_attempt(request);
    requests_.end(request, status, answer);
}

// Ends a request without a path. The caller holds the lock.
void path_resolver::give_up(path_request* request, ibat_stat_t status)
{
    complete(request, status, gid_record(request->gid));
}

} // namespace ibat
