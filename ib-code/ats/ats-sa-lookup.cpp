// Sends the two lookups: the GID of an address (arp) and the address of a GID (rarp). A request timer ends the pending
// rarp requests that get no answer in time.
#include "ats-sa.h"

#include "kernel/memory.h"
#include "kernel/time.h"

list_head ats_rarp_reqs_by_gid[ATS_MAX_HCAS][ATS_RARP_BUCKETS];

namespace
{

// The values and trace texts in which the two lookups differ.
struct lookup_t {
    ats_sa_op_t op;
    const char* operation;
    const char* waiting;
    const char* no_port;
};
constexpr lookup_t arp = {
    .op = ATS_GET_SR_ARP_OP,
    .operation = "ats_sa_arp_send",
    .waiting = "ATS arp down_interruptible\n",
    .no_port = "ATS - Can't Send arp there is no active port, Check your link!\n",
};
constexpr lookup_t rarp = {
    .op = ATS_GET_SR_RARP_OP,
    .operation = "ats_sa_rarp_send",
    .waiting = "ATS rarp down_interruptible\n",
    .no_port = "ATS - Can't Send rarp there is no active port, Check your link!\n",
};

// Sends a Get. Holds `ats_sem` meanwhile, so that no other task changes the active port or registers.
int32_t send_lookup(ats_context_t* ats, const ibat_arp_data_t* arp_data, const lookup_t& lookup)
{
    ATS_TRACE_AS(lookup.operation, ZR_DEBUG, "%s", lookup.waiting);
    if (down_interruptible(&ats->ats_sem) != 0) {
        ATS_TRACE_AS(lookup.operation, ZR_ERROR, "down_interruptible is not OK\n");
        return -1;
    }
    if (!ats->active_port.load()) {
        ATS_TRACE_AS(lookup.operation, ZR_ERROR, "%s", lookup.no_port);
        up(&ats->ats_sem);
        return -1;
    }
    const int32_t ret = ats_sa_post_get(ats, lookup.op, arp_data);
    ATS_TRACE_AS(lookup.operation, ZR_DEBUG, "ATS arp sem up\n"); // the same text for both lookups
    up(&ats->ats_sem);
    return ret;
}

// Moves the pending requests that have expired to the list `expired`, the newest first.
void take_expired(ats_context_t* ats, list_head* expired, const char* operation)
{
    const unsigned long flags = spin_lock_irqsave(&ats->rarp_reqs_lock);
    for (list_head* link = ats->rarp_reqs_pending.next; link != &ats->rarp_reqs_pending;) {
        ats_rarp_req_t* req = list_entry(link, ats_rarp_req_t, link);
        link = link->next;
        ATS_TRACE_AS(operation, ZR_FUNC, "Checking RARP request entry: <0x%p>\n", static_cast<void*>(req));
        if (static_cast<uint32_t>(jiffies) - req->timestamp < ATS_REQ_AGE_LIMIT_TICKS) continue;
        ATS_TRACE_AS(operation, ZR_FUNC, "\t\t-> timeouted!\n");
        list_del_init(&req->link);
        list_del_init(&req->found_list_link);
        list_add(&req->link, expired);
    }
    spin_unlock_irqrestore(&ats->rarp_reqs_lock, flags);
}

} // namespace

int32_t ats_sa_arp_send(ats_context_t* ats, const ibat_arp_data_t* arp_data)
{
    return send_lookup(ats, arp_data, arp);
}

int32_t ats_sa_rarp_send(ats_context_t* ats, const ibat_arp_data_t* arp_data)
{
    return send_lookup(ats, arp_data, rarp);
}

void ats_req_timer_handler(unsigned long context)
{
    auto* ats = reinterpret_cast<ats_context_t*>(context);
    if (!list_empty(&ats->rarp_reqs_pending)) { // no lock: a request that is added now is seen at the next expiry
        ATS_DEBUG("Pending RARP requests present.\n");
        ++ats->deliveries;
        list_head expired;
        list_init(&expired);
        take_expired(ats, &expired, __func__);
        while (!list_empty(&expired)) {
            ats_rarp_req_t* req = list_entry(expired.next, ats_rarp_req_t, link);
            req->user_cb(ibat_stat_timeout, nullptr, req->user_context);
            list_del_init(&req->link);
            ATS_FUNC("found entry : 0x%p\n", static_cast<void*>(req));
            kfree(req);
        }
        --ats->deliveries;
    }
    ats->ats_req_timer.expires = jiffies + ATS_REQ_TIMER_PERIOD_TICKS;
    add_timing(&ats->ats_req_timer);
}

void ats_sa_drop_pending_requests(ats_context_t* ats)
{
    list_head dropped;
    list_init(&dropped);
    const unsigned long flags = spin_lock_irqsave(&ats->rarp_reqs_lock);
    while (!list_empty(&ats->rarp_reqs_pending)) {
        ats_rarp_req_t* req = list_entry(ats->rarp_reqs_pending.next, ats_rarp_req_t, link);
        list_del_init(&req->link);
        list_del_init(&req->found_list_link);
        list_add(&req->link, &dropped);
    }
    spin_unlock_irqrestore(&ats->rarp_reqs_lock, flags);
    while (!list_empty(&dropped)) {
        ats_rarp_req_t* req = list_entry(dropped.next, ats_rarp_req_t, link);
        list_del_init(&req->link);
        kfree(req);
    }
    // The completion context or the request timer may have taken requests off the list earlier, and may still be
    // calling their callbacks. Wait for these calls.
    ats_wait_for_deliveries(ats);
}

void ats_wait_for_deliveries(ats_context_t* ats)
{
    while (ats->deliveries != 0) schedule_timeout_uninterruptible(1);
}
