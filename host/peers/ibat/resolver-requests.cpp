// Implements the requests of class resolver, from the first caller that asks to the last callback.
#include "host/peers/ibat/records.h"
#include "host/peers/ibat/resolver.h"

namespace ibat
{
namespace
{

constexpr uint16_t arp_request = 1;
constexpr uint32_t usable_reply = IBAT_MASK_SRC_IP | IBAT_MASK_DST_IP | IBAT_MASK_GID;

} // namespace

// ---- requests ----

// Adds the caller to the request for the address. Makes and sends this request if there is none. If `arp_data` is not
// null, first looks in the cache; if the cache has the answer, returns that and does not ask.
ibat_stat_t resolver::ask(uint32_t address, ibat_arp_data_t* arp_data, ibat_get_ib_data_reply_fn_t callback,
                          void* context)
{
    send_order order{};
    const auto check = [&] {
        // An answer may have arrived since resolve() has searched the cache.
        const ibat_stat_t status = arp_data ? from_cache(address, arp_data) : ibat_stat_pending;
        return status == ibat_stat_pending && !attachment_.accepts_calls() ? ibat_stat_error : status;
    };
    const ibat_stat_t status = requests_.ask(address, callback, context, check,
                                             [&](address_request* request) { order = begin_attempt(request); });
    if (order.provider.send) send(order);
    return status;
}

int32_t resolver::cancel(ibat_get_ib_data_reply_fn_t callback, void* context)
{
    return requests_.cancel(callback, context, [this](address_request* request) { give_up(request, ibat_stat_error); });
}

// ---- attempts and their deadlines ----

// Counts an attempt of a request in the sending list, and begins a call of the provider. The caller holds the lock, and
// the attachment accepts calls. The caller then releases the lock and passes the result to send().
send_order resolver::begin_attempt(address_request* request)
{
    assert(request->attempts < max_attempts_);
    ++request->attempts;
    return {attachment_.begin_call(), request->address, request->id, request->attempts > 1};
}

// Sends an attempt of begin_attempt() through the provider. During the provider's call, the request may end and be
// freed. Therefore this function searches for it again afterwards. The caller does not hold the lock. May sleep.
void resolver::send(const send_order& order)
{
    ibat_arp_data_t query = address_record(order.address);
    query.arp_operation = arp_request;
    const bool was_sent = order.provider.send(&query, order.provider.context, 0) == ibat_stat_ok;
    {
        spin_guard guard(&lock_);
        attachment_.end_call();
        if (!was_sent)
            ++counters_.refused;
        else if (order.is_retry)
            ++counters_.retries;
        else
            ++counters_.requests;
        if (address_request* request = requests_.find(order.address, order.request_id)) {
            request->was_sent |= was_sent;
            await_answer(request);
        }
    }
    attachment_.wake_detach();
}

// Called after an attempt. Puts the request into the waiting list until its next attempt or its time-out is due. But if
// this was the last attempt and the provider has refused all attempts, ends the request. The caller holds the lock.
void resolver::await_answer(address_request* request)
{
    if (!request->was_sent && request->attempts >= max_attempts_) {
        give_up(request, ibat_stat_error);
        return;
    }
    requests_.move_to_waiting(request, retry_ticks_);
}

// The handler of the timer in requests_. May sleep, because the provider's function may sleep.
void resolver::retry_due()
{
    send_order order{};
    while (next_due(&order)) send(order);
}

// Looks for a request whose deadline has come and that has an attempt left. If there is one, stores its next attempt in
// `*order` and returns true. The caller then sends this attempt. Ends requests whose deadline has come and that have no
// attempt left.
bool resolver::next_due(send_order* order)
{
    spin_guard guard(&lock_);
    while (address_request* request = requests_.take_due()) {
        if (request->attempts < max_attempts_) {
            *order = begin_attempt(request);
            return true;
        }
        ++counters_.timeouts;
        give_up(request, ibat_stat_timeout);
    }
    return false;
}

// ---- answers ----

ibat_stat_t resolver::take_reply(const ibat_arp_data_t& reply)
{
    must_not_hold_spin_lock("IBAT's process_arp_data");
    spin_guard guard(&lock_);
    const bool is_usable = reply.arp_operation == IBAT_ARP_REPLY && (reply.mask & usable_reply) == usable_reply;
    if (!is_usable || reply.src_ip == 0) {
        // The provider marks an answer as static if its address is the address of the port. An answer without an
        // address is thus static if the port has no address any more. The port's own mapping in the cache is then out
        // of date.
        if (is_usable && reply.mask & IBAT_MASK_STATIC) cache_.forget_own(reply.gid, reply.local_port_num);
        ++counters_.ignored;
        return ibat_stat_error;
    }
    // If the SA has no record, its answer repeats the fields of the request. The request had no GID, so that the
    // GID of the answer is zero.
    if (reply.gid == kq_gid_t{}) {
        take_negative(reply.src_ip);
    } else {
        take_positive(reply);
    }
    arm_sweep();
    return ibat_stat_ok;
}

void resolver::take_positive(const ibat_arp_data_t& reply)
{
    ++counters_.answers;
    // The host's own mapping does not expire. It is stored only while a provider is attached, because the provider
    // confirms it. Without a provider, the answer is stored like that of another host, and expires.
    const bool is_own = reply.mask & IBAT_MASK_STATIC && attachment_.is_attached();
    const uint32_t port = reply.mask & IBAT_MASK_LOCAL_PORT_NUM ? reply.local_port_num : 0;
    const bool is_stored =
        is_own ? cache_.learn_own(reply.src_ip, reply.gid, port) : cache_.learn(reply.src_ip, reply.gid, port);
    if (!is_stored) ++counters_.conflicts;
    address_request* request = requests_.find(reply.src_ip);
    if (!request) {
        ++counters_.unsolicited;
        return;
    }
    ibat_arp_data_t answer{};
    fill_record(reply.src_ip, reply.gid, port, is_own, &answer);
    requests_.end(request, ibat_stat_ok, answer);
}

void resolver::take_negative(uint32_t address)
{
    ++counters_.negative_answers;
    cache_.learn_absence(address);
    address_request* request = requests_.find(address);
    if (!request) {
        ++counters_.unsolicited;
        return;
    }
    requests_.end(request, ibat_stat_not_found, address_record(address));
}

// Ends a request without an answer: the callbacks get `status`. The caller holds the lock.
void resolver::give_up(address_request* request, ibat_stat_t status)
{
    requests_.end(request, status, address_record(request->address));
}

} // namespace ibat
