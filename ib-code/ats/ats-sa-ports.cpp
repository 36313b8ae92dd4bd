// Handles port events: chooses the active port, and registers its record at the SA.
#include "ats-sa.h"

#include <cassert>

namespace
{

constexpr int32_t delete_tries = 3;

// Returns the port with the number `port_num`. Logs a line and returns null if the context does not use that port.
ats_port_ctx_t* find_port(ats_context_t* ats, int32_t port_num, const char* operation)
{
    assert(ats->num_of_hca_ports <= ATS_PORTS_PER_HCA);
    if (port_num >= 1 && port_num <= ats->num_of_hca_ports) return &ats->ib_ports[port_num - 1];
    ATS_TRACE_AS(operation, ZR_ERROR, "port %d is not used\n", port_num);
    return nullptr;
}

// Makes the lowest-numbered standby port the active port and registers through it. Does nothing if there is no standby
// port. The caller holds `ats_sem`, and there is no active port. May sleep.
void handle_no_active_port(ats_context_t* ats)
{
    assert(!ats->active_port.load());
    for (int32_t i = 0; i < ats->num_of_hca_ports; ++i) {
        ats_port_ctx_t* port = &ats->ib_ports[i];
        if (port->state != ATS_PORT_UP) continue;
        port->state = ATS_PORT_ACTIVE;
        ats->active_port = port;
        ATS_DEBUG(" Setting port %d to be the active port (%p)\n", port->port_num, static_cast<void*>(port));
        const int32_t ret = ats_sa_set_new_sr(ats);
        ATS_DEBUG(" sending SA Set SR, ret = %d\n", ret);
        return;
    }
}

// Reads the port's attributes, its first GID and its first P_Key from the HCA and stores them. Returns 0. Returns -1 at
// the first failure; the values that were read before it are stored. May sleep. The caller holds `ats_sem`.
int32_t ats_sa_get_port_attr_and_sgid(ats_context_t* ats, int32_t port_num)
{
    ats_port_ctx_t* port = find_port(ats, port_num, __func__);
    if (!port) return -1;
    const auto number = static_cast<kq_port_num_t>(port_num);
    ATS_FUNC("hca handle is 0x%p.\n", static_cast<void*>(ats->hca));

    kq_port_attrib_t attributes{};
    if (const kq_return_t ret = kq_port_query(ats->hca, number, &attributes); ret != kq_return_ok) {
        ATS_DEBUG("kq_port_query() failed <%d>\n", ret);
        return -1;
    }
    port->port_attrib.store(attributes);
    ATS_DEBUG(" port_attrib.port_sma_address_info.sm_lid: 0x%X.\n", attributes.port_sma_address_info.sm_lid);
    ATS_DEBUG(" port_attrib.port_sma_address_info.service_level: 0x%X.\n",
              attributes.port_sma_address_info.service_level);

    int count = 1;
    kq_gid_t gid = port->port_gid.load(); // kept if the GID table is empty
    if (const kq_return_t ret = kq_get_port_gid_tbl(ats->hca, number, &count, &gid); ret != kq_return_ok) {
        ATS_DEBUG("kq_get_port_gid_tbl() failed <%d>\n", ret);
        return -1;
    }
    port->port_gid.store(gid);

    count = 1;
    kq_p_key_t p_key = port->port_pkey;
    if (const kq_return_t ret = kq_get_port_partition_tbl(ats->hca, number, &count, &p_key); ret != kq_return_ok) {
        ATS_DEBUG("kq_get_port_partition_tbl() failed <%d>\n", ret);
        return -1;
    }
    port->port_pkey = p_key;
    ATS_DEBUG(" port %d pkey 0x%04x gid: " KQ_GID_FORMAT "\n", port_num, p_key, KQ_GID_ARGS(gid));
    return 0;
}

void handle_link_up(ats_context_t* ats, uint8_t port_num)
{
    constexpr int line_of_report = 458; // a fixed number that log readers search for; not a line of this file
    ats_port_ctx_t* port = find_port(ats, port_num, __func__);
    if (!port || port->state == ATS_PORT_ACTIVE) return;
    port->state = ATS_PORT_UP;
    const bool refreshed = ats_sa_get_port_attr_and_sgid(ats, port_num) == 0;
    if (ats->active_port.load()) {
        if (!refreshed) ATS_ERROR("ATS - %s:%d Fail to get port attributes on link up\n", __func__, line_of_report);
    } else if (refreshed) {
        handle_no_active_port(ats);
    } else {
        ATS_ERROR("Fail to get port attributes on link up\n\n");
    }
}

void handle_link_down(ats_context_t* ats, uint8_t port_num)
{
    ats_port_ctx_t* port = find_port(ats, port_num, __func__);
    if (!port) return;
    switch (const ats_port_state_t state = port->state) {
    case ATS_PORT_DOWN:
        break;
    case ATS_PORT_UP:
        port->state = ATS_PORT_DOWN;
        break;
    case ATS_PORT_ACTIVE:
        port->state = ATS_PORT_DOWN;
        ats->sm_registered_gid.store(port->port_gid.load());
        ats->active_port = nullptr;
        handle_no_active_port(ats);
        break;
    default:
        ATS_ERROR("Illegal port state %d\n", state);
        break;
    }
}

// Reads the new SM's LID together with all other attributes.
void handle_sm_lid_change(ats_context_t* ats, uint8_t port_num, kq_lid_t)
{
    (void)ats_sa_get_port_attr_and_sgid(ats, port_num);
}

} // namespace

int32_t ats_sa_send_delete(ats_context_t* ats)
{
    ats->resp_recv = 0;
    return ats_sa_post_delete(ats);
}

void ats_sa_wait_for_delete_answer(ats_context_t* ats)
{
    wait_event_interruptible_timeout(
        &ats->delete_resp_wq, [ats] { return ats->resp_recv != 0; }, ATS_DELETE_WAIT_TICKS);
}

void ats_sa_wait_for_restores(ats_context_t* ats)
{
    // fetch_add(0) instead of a load, because it orders this task against restore_registration. Either this task sees
    // the counter that restore_registration has raised, or restore_registration sees the values that this task has
    // written before.
    while (ats->restores_running.fetch_add(0) != 0) schedule_timeout_uninterruptible(1);
}

int32_t ats_sa_set_new_sr(ats_context_t* ats)
{
    assert(ats->active_port.load());
    ats_sa_wait_for_restores(ats);
    bool is_answered = false;
    for (int32_t i = 0; i < delete_tries && !is_answered; ++i) {
        if (const int32_t ret = ats_sa_send_delete(ats); ret != 0) {
            ATS_ERROR("Can't start SA del of service record, ret - %d\n", ret);
            continue;
        }
        ats_sa_wait_for_delete_answer(ats);
        if (signal_pending())
            ATS_ERROR("Interrupted by a signal\n");
        else if (ats->resp_recv != 0)
            is_answered = true;
        else
            ATS_DEBUG("timeout on send DEL SR MAD\n");
    }
    if (!is_answered && ats->resp_recv == 0) ATS_DEBUG("ATS - ERROR DEL SR Failed\n");

    ats->resp_recv = 0;
    const int32_t ret = ats_sa_post_set(ats);
    ++ats->sets_tried;
    if (ret != 0) {
        ATS_ERROR("Can't start SA set of service record ret - %d\n", ret);
        return ret;
    }
    ats->sm_registered_gid.store(ats->active_port.load()->port_gid.load());
    return 0;
}

void ats_async_event_cb(kq_event_record_st event_record)
{
    ats_context_t* ats = ats_find_context(event_record.hca_app_h);
    if (!ats) {
        ATS_ERROR("couldn't find ats conext\n");
        return;
    }
    ATS_DEBUG("ats_async_event_cb is going to take a sem\n");
    down(&ats->ats_sem);
    ATS_DEBUG("ats_async_event_cb has taken a sem\n");
    const uint8_t port_num = event_record.port_num;
    switch (event_record.event_type) {
    case kq_async_r_port_link_up:
        ATS_DEBUG("Received link_up <port:%d>\n", port_num);
        handle_link_up(ats, port_num);
        break;
    case kq_async_r_port_link_down:
        ATS_DEBUG("Received link_down <port:%d>\n", port_num);
        handle_link_down(ats, port_num);
        break;
    case kq_async_r_port_sm_change:
        ATS_DEBUG("Received sm_lid_change <port:%d>, <new sm lid:%Lx>\n", port_num,
                  static_cast<unsigned long long>(event_record.type.data));
        handle_sm_lid_change(ats, port_num, static_cast<kq_lid_t>(event_record.type.data));
        break;
    default:
        ATS_DEBUG("Received async event <type: %X> <port:%d>\n", event_record.event_type, port_num);
        break;
    }
    ATS_DEBUG("ats_async_event_cb release the sem\n");
    up(&ats->ats_sem);
}
