// The resolver's requests, from the first asker to the last callback.
#include "host/peers/ibat/records.h"
#include "host/peers/ibat/resolver.h"

namespace ibat
{
namespace
{

constexpr uint16_t arp_request = 1;
constexpr uint32_t usable_reply = IBAT_MASK_SRC_IP | IBAT_MASK_DST_IP | IBAT_MASK_GID;

bool has_come(unsigned long deadline)
{
    return static_cast<long>(jiffies - deadline) >= 0; // right across the wrap of the tick count
}

} // namespace

// ---- requests ----

// Joins or makes the request for the address. `arp_data` null: does not look into the cache.
ibat_stat_t resolver::ask(uint32_t address, ibat_arp_data_t* arp_data, ibat_get_ib_data_reply_fn_t callback,
                          void* context)
{
    auto* asker = static_cast<asker_t*>(kmalloc(sizeof(asker_t), GFP_KERNEL));
    auto* new_request = static_cast<address_request*>(kmalloc(sizeof(address_request), GFP_KERNEL));
    ibat_stat_t status = ibat_stat_error;
    send_order order{};
    if (asker && new_request) {
        asker->callback = callback;
        asker->context = context;
        spin_guard guard(&lock_);
        status = arp_data ? from_cache(address, arp_data) : ibat_stat_pending; // an answer may have come in between
        if (status == ibat_stat_pending && !attachment_.accepts_calls()) status = ibat_stat_error;
        if (status == ibat_stat_pending) {
            if (join(address, asker, new_request, &order)) new_request = nullptr;
            asker = nullptr;
        }
    }
    kfree(asker);
    kfree(new_request);
    if (order.provider.send) send(order);
    return status;
}

// Gives `asker` to the request for the address. True: that is `new_request`, and the caller sends its first attempt,
// `*order`. With the lock held; the attachment accepts calls.
bool resolver::join(uint32_t address, asker_t* asker, address_request* new_request, send_order* order)
{
    address_request* request = requests_by_address_.find(address);
    if (request) {
        list_add_tail(&asker->link, &request->askers);
        return false;
    }
    new_request->address = address;
    new_request->id = ++last_request_id_;
    new_request->attempts = 0;
    new_request->was_sent = false;
    list_init(&new_request->link);
    list_init(&new_request->askers);
    list_add_tail(&asker->link, &new_request->askers);
    requests_by_address_.insert(new_request);
    ++counters_.pending;
    *order = begin_attempt(new_request);
    return true;
}

int32_t resolver::cancel(ibat_get_ib_data_reply_fn_t callback, void* context)
{
    int32_t withdrawn;
    {
        spin_guard guard(&lock_);
        withdrawn = replies_.withdraw(callback, context);
        for (list_head* requests : {&sending_list_, &waiting_list_}) {
            for (list_head* link = requests->next; link != requests;) {
                address_request* request = list_entry(link, address_request, link);
                link = link->next;
                withdrawn += withdraw_askers(&request->askers, callback, context);
                if (list_empty(&request->askers)) give_up(request, ibat_stat_error); // no asker remains
            }
        }
    }
    replies_.wait_while_running(callback, context);
    return withdrawn;
}

// ---- attempts and their deadlines ----

// Counts an attempt, and moves the request to the sending list. The caller sends the attempt without the lock. With the
// lock held; the attachment accepts calls.
send_order resolver::begin_attempt(address_request* request)
{
    assert(request->attempts < max_attempts_);
    ++request->attempts;
    list_del_init(&request->link);
    list_add_tail(&request->link, &sending_list_);
    return {attachment_.begin_call(), request->address, request->id, request->attempts > 1};
}

// Sends an attempt of begin_attempt(). The request may end during the call, and its memory is then freed. Therefore it
// is looked up again.
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
        address_request* request = requests_by_address_.find(order.address);
        if (request && request->id == order.request_id) {
            request->was_sent |= was_sent;
            await_answer(request);
        }
    }
    attachment_.wake_detach();
}

// Lets a request wait for its answer until the next attempt. If the provider has refused every attempt, gives it up at
// once. With the lock held.
void resolver::await_answer(address_request* request)
{
    if (!request->was_sent && request->attempts >= max_attempts_) {
        give_up(request, ibat_stat_error);
        return;
    }
    request->deadline = jiffies + retry_ticks_;
    list_del_init(&request->link);
    list_add_tail(&request->link, &waiting_list_); // all wait equally long, so this is the order of the deadlines
    arm_retry();
}

// With the lock held.
void resolver::arm_retry()
{
    assert(is_held(lock_));
    if (is_retry_armed_ || list_empty(&waiting_list_)) return;
    is_retry_armed_ = true;
    retry_timer_.expires = first_of(&waiting_list_)->deadline;
    add_timing(&retry_timer_);
}

// The retry timer's handler. May sleep, because the provider may.
void resolver::retry_due()
{
    send_order order{};
    while (next_due(&order)) send(order);
}

// Gives up the requests that are due and have no attempt left. True: the caller sends `*order`, the next attempt of
// another request that is due.
bool resolver::next_due(send_order* order)
{
    spin_guard guard(&lock_);
    while (!list_empty(&waiting_list_) && has_come(first_of(&waiting_list_)->deadline)) {
        address_request* request = first_of(&waiting_list_);
        if (request->attempts < max_attempts_) {
            *order = begin_attempt(request);
            return true;
        }
        ++counters_.timeouts;
        give_up(request, ibat_stat_timeout);
    }
    is_retry_armed_ = false;
    arm_retry();
    return false;
}

// ---- answers ----

ibat_stat_t resolver::take_reply(const ibat_arp_data_t& reply)
{
    must_not_hold_spin_lock("IBAT's process_arp_data");
    spin_guard guard(&lock_);
    const bool is_usable = reply.arp_operation == IBAT_ARP_REPLY && (reply.mask & usable_reply) == usable_reply;
    if (!is_usable || reply.src_ip == 0) {
        // If the own address of a port is zero, every answer without an address looks like its own mapping.
        if (is_usable && reply.mask & IBAT_MASK_STATIC) cache_.forget_own(reply.gid, reply.local_port_num);
        ++counters_.ignored;
        return ibat_stat_error;
    }
    // An answer without a record repeats the request, and a request for an address has no GID.
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
    // Only an attached provider confirms the host's own mapping. Without one the answer is like that of another host.
    const bool is_own = reply.mask & IBAT_MASK_STATIC && attachment_.is_attached();
    const uint32_t port = reply.mask & IBAT_MASK_LOCAL_PORT_NUM ? reply.local_port_num : 0;
    const bool is_stored =
        is_own ? cache_.learn_own(reply.src_ip, reply.gid, port) : cache_.learn(reply.src_ip, reply.gid, port);
    if (!is_stored) ++counters_.conflicts;
    address_request* request = requests_by_address_.find(reply.src_ip);
    if (!request) {
        ++counters_.unsolicited;
        return;
    }
    ibat_arp_data_t answer{};
    fill_record(reply.src_ip, reply.gid, port, is_own, &answer);
    complete(request, ibat_stat_ok, answer);
}

void resolver::take_negative(uint32_t address)
{
    ++counters_.negative_answers;
    cache_.learn_absence(address);
    address_request* request = requests_by_address_.find(address);
    if (!request) {
        ++counters_.unsolicited;
        return;
    }
    complete(request, ibat_stat_not_found, address_record(address));
}

// Ends a request: queues the callbacks of its askers and frees it. With the lock held.
void resolver::complete(address_request* request, ibat_stat_t status, const ibat_arp_data_t& answer)
{
    while (!list_empty(&request->askers)) {
        asker_t* asker = list_entry(request->askers.next, asker_t, link);
        list_del_init(&asker->link);
        replies_.owe(asker, status, answer);
    }
    assert(counters_.pending > 0);
    requests_by_address_.remove(request);
    list_del_init(&request->link);
    kfree(request);
    --counters_.pending;
}

void resolver::give_up(address_request* request, ibat_stat_t status)
{
    complete(request, status, address_record(request->address));
}

} // namespace ibat
