// Starts and stops the context of each HCA (ats_context_t), connects it to IBAT, and delivers the SA's replies to IBAT
// and to pending requests.
#include "ats-api.h"

#include <cassert>
#include <utility>

namespace
{

constexpr uint64_t ats_service_id = 0x10000CE100415453; // ends in the letters A, T, S
constexpr int32_t datagrams_per_hca = 16;

// IBAT calls this function to ask for a GID. The function only sends the request. ats_process_sa_reply passes the SA's
// answer to IBAT later.
ibat_stat_t ats_arp_send(ibat_arp_data_t* arp_data, void* context, int)
{
    return ats_sa_arp_send(static_cast<ats_context_t*>(context), arp_data) == 0 ? ibat_stat_ok : ibat_stat_error;
}

// Gives back the reference on ibat_process_arp_data. The completion context may still be in a call of that function.
// Therefore first waits until the call has ended.
void put_process_arp_data(ats_context_t* ats)
{
    if (!ats->ibat_process_arp_data.exchange(nullptr)) return;
    ats_wait_for_deliveries(ats);
    inter_module_put("ibat_process_arp_data_fn");
}

// Gives back the references on IBAT, in reverse order.
void put_ibat(ats_context_t* ats)
{
    ats_put_peer("ibat_seq_cache_lookup_fn", &ats->ibat_seq_cache_lookup);
    put_process_arp_data(ats);
    ats_put_peer("ibat_detach_fn", &ats->ibat_detach);
    ats_put_peer("ibat_attach_fn", &ats->ibat_attach);
}

// Takes references on IBAT's functions: on all four, or only on the cache lookup if `attach_ibat` is 0. Returns null,
// or a text for the log if IBAT does not publish a function.
const char* get_ibat(ats_context_t* ats, int32_t attach_ibat)
{
    if (attach_ibat != 0) {
        if (!ats_get_peer("ibat_attach_fn", &ats->ibat_attach)) return "Could not get IBAT attach function\n";
        if (!ats_get_peer("ibat_detach_fn", &ats->ibat_detach)) return "Could not get IBAT detach function\n";
        ibat_process_arp_data_fn_t process;
        if (!ats_get_peer("ibat_process_arp_data_fn", &process))
            return "Could not get IBAT process arp data function\n";
        ats->ibat_process_arp_data = process;
    }
    return ats_get_peer("ibat_seq_cache_lookup_fn", &ats->ibat_seq_cache_lookup)
               ? nullptr
               : "Could not get IBAT seq cache lookup function\n";
}

void u32_swap(uint32_t* x, uint32_t* y)
{
    std::swap(*x, *y);
}

} // namespace

int32_t ats_init(ats_context_t* ats, int32_t attach_ibat, int32_t sa_only)
{
    ats->service_id = ats_service_id;
    ats->gsi_pool_size = datagrams_per_hca;
    list_init(&ats->rarp_reqs_pending);
    spin_lock_init(&ats->rarp_reqs_lock);
    if (const int32_t ret = ats_sa_init(ats); ret != 0) {
        ATS_ERROR("ats_sa_init failed %d\n", ret);
        return ret;
    }
    if (sa_only != 0) {
        ATS_DEBUG("sa_only!!  ctxt=%p\n", static_cast<void*>(ats));
        return 0;
    }
    ATS_DEBUG("full functionality  ctxt=%p\n", static_cast<void*>(ats));
    if (const ibat_stat_t ret = ats_ibat_init(ats, attach_ibat); ret != ibat_stat_ok) {
        ATS_ERROR("ats_ibat_init failed %d\n", ret);
        ats_sa_stop(ats);
        return -1;
    }
    if (const ucm_stat_t ret = ats_ucm_init(ats); ret != ucm_stat_ok) ATS_WARNING("ats_ucm_init failed %d\n", ret);
    return 0;
}

void ats_stop()
{
    for (int32_t i = 0; i < ats_n_hcas; ++i) {
        ATS_DEBUG("stop hca %d\n", i);
        if (i == 0) {
            ats_ucm_stop(&ats_cntx[0]);
            ats_ibat_stop(&ats_cntx[0]);
        }
        ats_sa_stop(&ats_cntx[i]);
    }
}

ibat_stat_t ats_ibat_init(ats_context_t* ats, int32_t attach_ibat)
{
    ats->ibat_attach = nullptr;
    ats->ibat_detach = nullptr;
    ats->ibat_process_arp_data = nullptr;
    ats->ibat_seq_cache_lookup = nullptr;
    if (const char* missing = get_ibat(ats, attach_ibat)) {
        ATS_ERROR("%s", missing);
        put_ibat(ats);
        return ibat_stat_error;
    }
    // If `attach_ibat` is 0, the module only reads IBAT's cache, and IBAT never calls the module.
    if (!ats->ibat_attach) return ibat_stat_ok;
    if (ats->ibat_attach(nullptr, ats_arp_send, ats, &ats->ibat_handle) == ibat_stat_ok) return ibat_stat_ok;
    ATS_ERROR("Could not attach to IBAT\n");
    put_ibat(ats);
    return ibat_stat_error;
}

void ats_ibat_stop(ats_context_t* ats)
{
    if (ats->ibat_detach) ats->ibat_detach(ats->ibat_handle);
    ats_put_peer("ibat_detach_fn", &ats->ibat_detach);
    put_process_arp_data(ats);
    ats_put_peer("ibat_attach_fn", &ats->ibat_attach);
    ats_put_peer("ibat_seq_cache_lookup_fn", &ats->ibat_seq_cache_lookup);
}

void ats_process_sa_reply(uint16_t mad_stat, ats_context_t* ats)
{
    ATS_DEBUG("mad_stat=%hd  ats=%p\n", mad_stat, static_cast<void*>(ats));
    if ((mad_stat & MAD_STATUS_COMMON_BITS) != 0) return; // the requesters get a time-out

    // For IBAT, the reply has the form of an ARP reply: its source is the host that was looked up. Swap the addresses
    // for this call only.
    ++ats->deliveries;
    ibat_arp_data_t& reply = ats->rcv_arp_data;
    reply.arp_operation = IBAT_ARP_REPLY;
    u32_swap(&reply.src_ip, &reply.dst_ip);
    if (const ibat_process_arp_data_fn_t process = ats->ibat_process_arp_data) process(&reply);
    u32_swap(&reply.src_ip, &reply.dst_ip);
    ats_process_rarp_data(mad_stat, ats);
    assert(ats->deliveries > 0);
    --ats->deliveries;
}
