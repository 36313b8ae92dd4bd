// Sends requests to the SA, and implements GSI's callbacks for sent and received datagrams.
#include "ats-sa.h"

#include <cassert>

int32_t ats_sa_send_service_rec_set_get_del_mad(ats_context_t* ats, ats_sa_op_t op, const ibat_arp_data_t* arp_data,
                                                uint8_t is_set, uint8_t is_get, uint8_t is_table)
{
    // Read `active_port` only once. It may change at any moment, because the caller need not hold `ats_sem`.
    ats_port_ctx_t* port = ats->active_port;
    if (!port) {
        ATS_ERROR("ats_sa_send_service_rec_set_get_del_mad No active port, exit\n");
        return -1;
    }
    gsi_dtgrm_t* dtgrm;
    if (const int32_t ret =
            ats_sa_encode_service_rec_set_get_del_mad(ats, port, op, arp_data, is_set, is_get, is_table, &dtgrm);
        ret != 0) {
        ATS_ERROR("ats_sa_encode_service_rec_set_get_del_mad failed <%d>\n", ret);
        return -1;
    }
    ATS_DEBUG(" about to send MAD:\n");
    ats_sa_dump_service_record_mad(reinterpret_cast<mad_t*>(dtgrm->mad));
    ATS_DEBUG("send mad via port %d(%p), gsi handle %p\n", port->port_num, static_cast<void*>(port),
              static_cast<void*>(port->gsi_handle));
    uint64_t transaction_id;
    if (const int ret = gsi_post_send_dtgrm(port->gsi_handle, dtgrm, &transaction_id); ret != 0) {
        ATS_ERROR("gsi_post_send_dtgrm() failed <%d>\n", ret);
        gsi_dtgrm_pool_put(dtgrm);
        return -1;
    }
    // The send may have completed already, and its callback has then returned the datagram to the pool. Therefore print
    // only the pointer to the datagram.
    ATS_DEBUG(" gsi_post_send_dtgrm() on dtgrm %p succeeded ret = %d\n", static_cast<void*>(dtgrm), 0);
    ATS_DEBUG(" sent dtgrm transaction id is 0x%016LX\n", static_cast<unsigned long long>(transaction_id));
    return 0;
}

void ats_sa_gsi_send_compl_cb(gsi_class_handle_t, void* context, gsi_dtgrm_t* dtgrm)
{
    ATS_DEBUG("Datagram <%p> sent.\n", static_cast<void*>(dtgrm));
    static_cast<ats_port_ctx_t*>(context)->gsi_tx_pkts.fetch_add(1, std::memory_order_relaxed);
    gsi_dtgrm_pool_put(dtgrm);
}

// An answer to a Delete wakes the task that waits for such an answer. ats_process_sa_reply handles all other answers.
void ats_sa_gsi_recv_compl_cb(gsi_class_handle_t, void* context, gsi_dtgrm_t* dtgrm)
{
    ATS_DEBUG("Datagram <%p> received.\n", static_cast<void*>(dtgrm));
    auto* port = static_cast<ats_port_ctx_t*>(context);
    ats_context_t* ats = port->ats_context;
    assert(ats); // is set before GSI can call this function
    port->gsi_rx_pkts.fetch_add(1, std::memory_order_relaxed);
    ats->rcv_arp_data = {};
    ats_sa_gsi_decode_recv_dtgrm(port, dtgrm);

    const mad_hdr_t& header = sa_mad_of(dtgrm).hdr;
    const uint8_t method = header.m.method;
    const uint16_t mad_stat = from_wire(header.u.ns.status.raw16);
    gsi_dtgrm_pool_put(dtgrm);
    if (method == MAD_METHOD_DELETE) {
        ats->resp_recv = 1;
        wake_up_interruptible(&ats->delete_resp_wq);
        ATS_DEBUG(" Drop delete response mad\n");
    } else {
        ats_process_sa_reply(mad_stat, ats);
    }
}
