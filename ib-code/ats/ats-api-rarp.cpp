// Reverse resolution: finds the IPv4 address of a GID in IBAT's cache or by asking the SA. An answer completes all
// requests that wait for its GID.
#include "ats-api.h"

#include "kernel/memory.h"
#include "kernel/printk.h"
#include "kernel/time.h"

namespace
{

// Returns one list of the index `ats_rarp_reqs_by_gid`: the list of the requests for this GID and for GIDs with the
// same hash. The list's memory is all zero before the first request is added to it; see queue_request. Therefore a host
// that makes no requests uses no memory pages for the index. The caller holds `rarp_reqs_lock`.
list_head* bucket_of(ats_context_t* ats, const kq_gid_t& gid)
{
    constexpr uint64_t spread = 0x9E3779B97F4A7C15u; // Fibonacci hashing
    return &ats_rarp_reqs_by_gid[ats - ats_cntx][(gid.eui64 ^ gid.subnet) * spread >> 32 & (ATS_RARP_BUCKETS - 1)];
}

void queue_request(ats_context_t* ats, ats_rarp_req_t* req)
{
    const unsigned long flags = spin_lock_irqsave(&ats->rarp_reqs_lock);
    list_add_tail(&req->link, &ats->rarp_reqs_pending);
    list_head* bucket = bucket_of(ats, req->dgid);
    if (!bucket->next) list_init(bucket);
    list_add_tail(&req->found_list_link, bucket);
    req->timestamp = static_cast<uint32_t>(jiffies);
    spin_unlock_irqrestore(&ats->rarp_reqs_lock, flags);
}

// Traces the comparison of the answered GID with every pending request. The caller holds `rarp_reqs_lock`.
void trace_comparisons(ats_context_t* ats, const char* operation)
{
    for (list_head* link = ats->rarp_reqs_pending.next; link != &ats->rarp_reqs_pending; link = link->next) {
        const ats_rarp_req_t* req = list_entry(link, ats_rarp_req_t, link);
        ATS_TRACE_AS(operation, ZR_DEBUG, "check match against gid " KQ_GID_FORMAT "\n", KQ_GID_ARGS(req->dgid));
        if (ats->rcv_arp_data.gid == req->dgid) ATS_TRACE_AS(operation, ZR_DEBUG, "found match\n");
    }
}

// Moves the pending requests for the answered GID to the list `matches`, the newest first. Returns their number.
int32_t take_matching(ats_context_t* ats, list_head* matches, const char* operation)
{
    int32_t count = 0;
    const unsigned long flags = spin_lock_irqsave(&ats->rarp_reqs_lock);
    if (zr_is_traced(ZR_DEBUG, ATS_trace_level)) trace_comparisons(ats, operation);
    list_head* bucket = bucket_of(ats, ats->rcv_arp_data.gid);
    for (list_head* link = bucket->next; link && link != bucket;) {
        ats_rarp_req_t* req = list_entry(link, ats_rarp_req_t, found_list_link);
        link = link->next;
        if (!(ats->rcv_arp_data.gid == req->dgid)) continue;
        ++count;
        list_del_init(&req->link);
        list_del_init(&req->found_list_link);
        list_add(&req->found_list_link, matches);
    }
    spin_unlock_irqrestore(&ats->rarp_reqs_lock, flags);
    return count;
}

// Converts a class-specific code of the answer (IBA 15.2.4) to the status for the requester.
ibat_stat_t status_of(uint8_t sa_status, const char* operation)
{
    switch (sa_status) {
    case SA_STATUS_SUCCESS:
        return ibat_stat_ok;
    case SA_STATUS_NO_RESOURCES:
    case SA_STATUS_NO_RECORDS:
    case SA_STATUS_REQ_INVALID_GID:
        return ibat_stat_not_found;
    case SA_STATUS_REQ_INVALID:
    case SA_STATUS_TOO_MANY_RECORDS:
    case SA_STATUS_REQ_INSUFFICIENT_COMPONENTS:
        return ibat_stat_error;
    default:
        ATS_TRACE_AS(operation, ZR_DEBUG, "bad SA status %d\n", sa_status);
        return ibat_stat_error;
    }
}

void put_ucm(ats_context_t* ats)
{
    ats_put_peer("ucm_rarp_detach_fn", &ats->ucm_rarp_detach);
    ats_put_peer("ucm_rarp_attach_fn", &ats->ucm_rarp_attach);
}

} // namespace

ibat_stat_t ats_rarp_send(ibat_arp_data_t* arp_data, ats_rarp_reply_fn_t user_cb, void* user_context,
                          void* provider_context)
{
    auto* ats = static_cast<ats_context_t*>(provider_context);
    if (ats->ibat_seq_cache_lookup(&arp_data->gid, arp_data) == ibat_stat_ok) {
        ATS_DEBUG("RARP resolved by ibat cache lookup\n");
        return ibat_stat_ok;
    }
    return ats_rarp_send_nocache(arp_data, user_cb, user_context, provider_context);
}

ibat_stat_t ats_rarp_send_nocache(ibat_arp_data_t* arp_data, ats_rarp_reply_fn_t user_cb, void* user_context,
                                  void* provider_context)
{
    auto* ats = static_cast<ats_context_t*>(provider_context);
    auto* req = static_cast<ats_rarp_req_t*>(kmalloc(sizeof(ats_rarp_req_t), GFP_KERNEL));
    if (!req) {
        printk("ATS - can't allocate %zu bytes for ats_rarp_req_t\n", sizeof(ats_rarp_req_t));
        return ibat_stat_error;
    }
    req->dgid = arp_data->gid;
    req->user_cb = user_cb;
    req->user_context = user_context;
    queue_request(ats, req);
    // The request is in the list before it is sent. Therefore even an answer that comes at once finds the request
    // there. From here on, do not use `req`: an answer or a time-out may free it.
    return ats_sa_rarp_send(ats, arp_data) == 0 ? ibat_stat_pending : ibat_stat_error;
}

void ats_process_rarp_data(uint16_t mad_stat, ats_context_t* ats)
{
    list_head matches;
    list_init(&matches);
    const int32_t count = take_matching(ats, &matches, __func__);
    const ibat_stat_t status = status_of(static_cast<uint8_t>(mad_stat >> 8), __func__);
    while (!list_empty(&matches)) {
        ats_rarp_req_t* req = list_entry(matches.next, ats_rarp_req_t, found_list_link);
        list_del_init(&req->found_list_link);
        ATS_DEBUG("call callback %p  %p\n", static_cast<void*>(&ats->rcv_arp_data), req->user_context);
        req->user_cb(status, &ats->rcv_arp_data, req->user_context);
        kfree(req);
    }
    if (count != 1)
        ATS_DEBUG("found %d maching RARP reqs for gid " KQ_GID_FORMAT "\n", count, KQ_GID_ARGS(ats->rcv_arp_data.gid));
}

ucm_stat_t ats_ucm_init(ats_context_t* ats)
{
    if (!ats_get_peer("ucm_rarp_attach_fn", &ats->ucm_rarp_attach)) {
        ATS_WARNING("Could not get UCM RARP attach function\n");
        return ucm_stat_error;
    }
    if (!ats_get_peer("ucm_rarp_detach_fn", &ats->ucm_rarp_detach)) {
        ATS_ERROR("Could not get UCM RARP detach function\n");
        put_ucm(ats);
        return ucm_stat_error;
    }
    if (ats->ucm_rarp_attach(ats_rarp_send, ats, &ats->ucm_rarp_handle) == ucm_stat_ok) return ucm_stat_ok;
    ATS_ERROR("Could not attach to UCM\n");
    put_ucm(ats);
    return ucm_stat_error;
}

void ats_ucm_stop(ats_context_t* ats)
{
    if (!ats->ucm_rarp_detach) {
        ATS_DEBUG("Was not attached to UCM module\n");
        return;
    }
    ats->ucm_rarp_detach(ats->ucm_rarp_handle);
    ats_sa_drop_pending_requests(ats); // must come before put_ucm, which allows UCM's callbacks to be unloaded
    put_ucm(ats);
}

void ats_dummy_user_cb(ibat_stat_t status, ibat_arp_data_t* arp_data, void*)
{
    switch (status) {
    case ibat_stat_ok:
        ATS_DEBUG("Status OK received.\n");
        ATS_DEBUG("IP:%d.%d.%d.%d\n", ATS_IP_ARGS(arp_data->dst_ip));
        break;
    case ibat_stat_timeout:
        ATS_DEBUG("Status TIMEOUT received.\n");
        break;
    case ibat_stat_error:
        ATS_DEBUG("Status ERROR received.\n");
        break;
    default:
        ATS_DEBUG("Status %d received.\n", status);
        break;
    }
}
