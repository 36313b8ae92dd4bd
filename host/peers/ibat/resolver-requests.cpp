// The resolver's requests: asked, sent, repeated, answered, given up, withdrawn.
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

// `arp_data` null: whatever the cache holds.
ibat_stat_t resolver::ask(uint32_t address, ibat_arp_data_t* arp_data, ibat_get_ib_data_reply_fn_t callback,
                          void* context)
{
    auto* asker = static_cast<asker_t*>(kmalloc(sizeof(asker_t), GFP_KERNEL));
    auto* fresh = static_cast<request*>(kmalloc(sizeof(request), GFP_KERNEL));
    ibat_stat_t status = ibat_stat_error;
    send_order order{};
    if (asker && fresh) {
        asker->callback = callback;
        asker->context = context;
        spin_guard guard(&lock_);
        status = arp_data ? from_cache(address, arp_data) : ibat_stat_pending; // the answer may have come meanwhile
        if (status == ibat_stat_pending && (!send_arp_ || detaching_)) status = ibat_stat_error;
        if (status == ibat_stat_pending) {
            if (join(address, asker, fresh, &order)) fresh = nullptr;
            asker = nullptr;
        }
    }
    kfree(asker);
    kfree(fresh);
    if (order.send_arp) send(order);
    return status;
}

// Hands `asker` to the request for the address; true when that is `fresh`, whose first attempt is to be sent then.
bool resolver::join(uint32_t address, asker_t* asker, request* fresh, send_order* order)
{
    if (request* asked = by_address_.find(address)) {
        list_add_tail(&asker->link, &asked->askers);
        return false;
    }
    fresh->address = address;
    fresh->id = ++last_request_id_;
    fresh->attempts = 0;
    fresh->was_sent = false;
    list_init(&fresh->link);
    list_init(&fresh->askers);
    list_add_tail(&asker->link, &fresh->askers);
    by_address_.insert(fresh);
    ++counters_.pending;
    *order = begin_attempt(fresh);
    return true;
}

int32_t resolver::cancel(ibat_get_ib_data_reply_fn_t callback, void* context)
{
    int32_t withdrawn;
    {
        spin_guard guard(&lock_);
        withdrawn = replies_.withdraw(callback, context);
        for (list_head* requests : {&sending_, &waiting_}) {
            for (list_head* link = requests->next; link != requests;) {
                request* asked = list_entry(link, request, link);
                link = link->next;
                withdrawn += withdraw_askers(&asked->askers, callback, context);
                if (list_empty(&asked->askers)) give_up(asked, ibat_stat_error); // nobody is left to be told
            }
        }
    }
    replies_.wait_while_running(callback, context);
    return withdrawn;
}

// ---- attempts and their deadlines ----

send_order resolver::begin_attempt(request* asked)
{
    ++asked->attempts;
    list_del_init(&asked->link);
    list_add_tail(&asked->link, &sending_);
    ++sends_running_;
    return {send_arp_, send_context_, asked->address, asked->id, asked->attempts > 1};
}

// Sends one attempt that begin_attempt() counted. The request may be over, and its memory gone, before the resolver
// returns; so it is looked up again.
void resolver::send(const send_order& order)
{
    ibat_arp_data_t query = address_record(order.address);
    query.arp_operation = arp_request;
    const bool was_sent = order.send_arp(&query, order.context, 0) == ibat_stat_ok;
    {
        spin_guard guard(&lock_);
        --sends_running_;
        ++(!was_sent ? counters_.refused : order.is_retry ? counters_.retries : counters_.requests);
        request* asked = by_address_.find(order.address);
        if (asked && asked->id == order.request_id) {
            asked->was_sent |= was_sent;
            await_answer(asked);
        }
    }
    wake_up_interruptible(&sends_finished_);
}

// A request that the resolver refused to the last has nothing to wait for; every other waits its time.
void resolver::await_answer(request* asked)
{
    if (!asked->was_sent && asked->attempts >= max_attempts_) {
        give_up(asked, ibat_stat_error);
        return;
    }
    asked->deadline = jiffies + retry_ticks_;
    list_del_init(&asked->link);
    list_add_tail(&asked->link, &waiting_); // all wait equally long: the order is that of the deadlines
    arm_retry();
}

void resolver::arm_retry()
{
    if (retry_armed_ || list_empty(&waiting_)) return;
    retry_armed_ = true;
    retry_timer_.expires = first_of(&waiting_)->deadline;
    add_timing(&retry_timer_);
}

// The retry timer's handler; may sleep, because a resolver may.
void resolver::retry_due()
{
    send_order order{};
    while (next_due(&order)) send(order);
}

// Gives up the requests that are due and out of attempts; true when an attempt is to be sent for another.
bool resolver::next_due(send_order* order)
{
    spin_guard guard(&lock_);
    while (!list_empty(&waiting_) && has_come(first_of(&waiting_)->deadline)) {
        request* due = first_of(&waiting_);
        if (due->attempts < max_attempts_) {
            *order = begin_attempt(due);
            return true;
        }
        ++counters_.timeouts;
        give_up(due, ibat_stat_timeout);
    }
    retry_armed_ = false;
    arm_retry();
    return false;
}

// ---- answers ----

ibat_stat_t resolver::process_arp(const ibat_arp_data_t& reply)
{
    must_not_hold_spin_lock("IBAT's process_arp_data");
    spin_guard guard(&lock_);
    const bool is_usable = reply.arp_operation == IBAT_ARP_REPLY && (reply.mask & usable_reply) == usable_reply;
    if (!is_usable || reply.src_ip == 0) {
        // A port whose own address is zero sees its own mapping in every answer that carries no address.
        if (is_usable && reply.mask & IBAT_MASK_STATIC) cache_.forget_own(reply.gid, reply.local_port_num);
        ++counters_.ignored;
        return ibat_stat_error;
    }
    // An answer without a record echoes the request, and the request for an address has no GID.
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
    // Only the one attached vouches for the host's own mapping; a later answer is like that of any other host.
    const bool is_own = reply.mask & IBAT_MASK_STATIC && send_arp_;
    const uint32_t port = reply.mask & IBAT_MASK_LOCAL_PORT_NUM ? reply.local_port_num : 0;
    const bool is_kept =
        is_own ? cache_.learn_own(reply.src_ip, reply.gid, port) : cache_.learn(reply.src_ip, reply.gid, port);
    if (!is_kept) ++counters_.conflicts;
    request* answered = by_address_.find(reply.src_ip);
    if (!answered) {
        ++counters_.unsolicited;
        return;
    }
    ibat_arp_data_t answer{};
    fill_record(reply.src_ip, reply.gid, port, is_own, &answer);
    complete(answered, ibat_stat_ok, answer);
}

void resolver::take_negative(uint32_t address)
{
    ++counters_.negative_answers;
    cache_.learn_absence(address);
    if (request* answered = by_address_.find(address)) {
        complete(answered, ibat_stat_not_found, address_record(address));
    } else {
        ++counters_.unsolicited;
    }
}

// Ends a request: its askers are owed their callbacks, its memory is gone.
void resolver::complete(request* finished, ibat_stat_t status, const ibat_arp_data_t& answer)
{
    while (!list_empty(&finished->askers)) {
        asker_t* asker = list_entry(finished->askers.next, asker_t, link);
        list_del_init(&asker->link);
        replies_.owe(asker, status, answer);
    }
    by_address_.remove(finished);
    list_del_init(&finished->link);
    kfree(finished);
    --counters_.pending;
}

void resolver::give_up(request* finished, ibat_stat_t status)
{
    complete(finished, status, address_record(finished->address));
}

} // namespace ibat
