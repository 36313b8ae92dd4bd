// Starts and stops the SA client of an HCA, and changes the host name and the address that the client registers.
#include "ats-sa.h"

#include <cstring>

#include "kernel/printk.h"
#include "kernel/time.h"

namespace
{

constexpr unsigned long deregister_pause_ticks = 100;

int32_t ats_init_static_port_attributes(ats_context_t* ats)
{
    constexpr int line_of_report = 618; // a fixed number that log readers search for; not a line of this file
    ATS_FUNC("hca handle is 0x%p\n", static_cast<void*>(ats->hca));
    kq_hca_attrib_t attributes{};
    if (kq_hca_query(ats->hca, &attributes) != kq_return_ok) {
        ATS_ERROR("%s:%d - fail to query hca\n", __func__, line_of_report);
        return -1;
    }
    ats->num_of_hca_ports = attributes.port_num;
    ATS_DEBUG("This hca has %d ports\n", ats->num_of_hca_ports);
    if (ats->num_of_hca_ports > ATS_PORTS_PER_HCA) {
        // The context can store two ports. Tell the administrator that the others are not used.
        printk("ATS - hca %s has %d ports, only the first %d are used\n", ats->hca_name.name, ats->num_of_hca_ports,
               ATS_PORTS_PER_HCA);
        ats->num_of_hca_ports = ATS_PORTS_PER_HCA;
    }

    uint32_t ip = 0;
    if (ats_parseipstr(ats_ipaddr_str, &ip) != ibat_stat_ok)
        ATS_ERROR("ATS - can't parse ip addr %s\n", ats_ipaddr_str);
    for (int32_t i = 0; i < ats->num_of_hca_ports; ++i) {
        ats_port_ctx_t* port = &ats->ib_ports[i];
        port->port_num = i + 1;
        port->port_ipaddr = ip;
        ATS_DEBUG("Setting port %d to ip addr is %d.%d.%d.%d %#.8x\n", port->port_num, ATS_IP_ARGS(ip), ip);
        port->ats_context = ats;
    }
    return 0;
}

int32_t register_ports(ats_context_t* ats, const char* operation)
{
    for (int32_t i = 0; i < ats->num_of_hca_ports; ++i) {
        ats_port_ctx_t* port = &ats->ib_ports[i];
        const int ret =
            gsi_register_class(MAD_CLASS_SUBN_ADM, MAD_CLASS_VERSION_SUBN_ADM, &ats->hca_name, port->port_num, 0, 0,
                               ats_sa_gsi_send_compl_cb, ats_sa_gsi_recv_compl_cb, port, &port->gsi_handle);
        if (ret != 0) {
            ATS_TRACE_AS(operation, ZR_ERROR, "Can't register to GSI");
            ATS_TRACE_AS(operation, ZR_ERROR, "ATS - Can't register to GSI ret %d\n", ret);
            port->gsi_handle = nullptr;
            return -1;
        }
        ATS_TRACE_AS(operation, ZR_DEBUG, " port %d after gsi_register_class, ret = %d gsi handle %p\n", port->port_num,
                     ret, static_cast<void*>(port->gsi_handle));
        port->gsi_tx_pkts = 0;
        port->gsi_rx_pkts = 0;
    }
    return 0;
}

// Tries once to deregister every port from GSI. GSI refuses while a datagram of the port is in flight. ats_sa_stop
// tries again for ports that are still registered.
void deregister_ports(ats_context_t* ats)
{
    for (int32_t i = 0; i < ats->num_of_hca_ports; ++i)
        if (gsi_deregister_class(ats->ib_ports[i].gsi_handle) == 0) ats->ib_ports[i].gsi_handle = nullptr;
}

void start_req_timer(ats_context_t* ats)
{
    init_timing(&ats->ats_req_timer);
    ats->ats_req_timer.atomic = true;
    ats->ats_req_timer.function = ats_req_timer_handler;
    ats->ats_req_timer.data = reinterpret_cast<unsigned long>(ats);
    ats->ats_req_timer.expires = jiffies + ATS_REQ_TIMER_PERIOD_TICKS;
    add_timing(&ats->ats_req_timer);
    ats->holds_req_timer = true;
}

// Sends a Delete of every port's record through the active port, and waits up to ATS_DELETE_WAIT_TICKS for each answer.
void delete_all_records(ats_context_t* ats, const char* operation)
{
    for (int32_t i = 0; i < ats->num_of_hca_ports; ++i) {
        ats->sm_registered_gid.store(ats->ib_ports[i].port_gid.load());
        if (const int32_t ret = ats_sa_send_delete(ats); ret != 0) {
            ATS_TRACE_AS(operation, ZR_ERROR, "Can't start SA del of service record, ret - %d\n", ret);
            continue;
        }
        ats_sa_wait_for_delete_answer(ats);
        if (ats->resp_recv == 0)
            ATS_TRACE_AS(operation, ZR_DEBUG, "timeout on send DEL SR MAD\n");
        else
            ATS_TRACE_AS(operation, ZR_DEBUG, "Received response on send DEL SR MAD\n");
        if (signal_pending()) ATS_TRACE_AS(operation, ZR_ERROR, "Interrupted by a signal\n");
    }
    ats->resp_recv = 0;
}

void deregister_until_released(ats_port_ctx_t* port, const char* operation)
{
    while (const int ret = gsi_deregister_class(port->gsi_handle)) {
        ATS_TRACE_AS(operation, ZR_DEBUG, "Can't deregister GSI class - returned %d. Try again\n", ret);
        schedule_timeout_uninterruptible(deregister_pause_ticks);
    }
    port->gsi_handle = nullptr;
    ATS_TRACE_AS(operation, ZR_DEBUG, "Deregistered GSI class\n");
}

void set_port_addresses(ats_context_t* ats, uint32_t port_ipaddr)
{
    for (int32_t i = 0; i < ats->num_of_hca_ports; ++i) ats->ib_ports[i].port_ipaddr = port_ipaddr;
}

void set_host_name(ats_context_t* ats, const char* host_name)
{
    ats_host_name_t name{};
    memcpy(name.text, host_name, strnlen(host_name, sizeof name.text));
    ats->host_name.store(name);
}

int32_t ats_sa_do_update_ip(ats_context_t* ats, uint32_t port_ipaddr)
{
    ATS_DEBUG("ATS ats_sa_update_ip_addrs is going down_interruptible\n");
    if (down_interruptible(&ats->ats_sem) != 0) {
        ATS_ERROR("down_interruptible is not OK\n");
        return -1;
    }
    set_port_addresses(ats, port_ipaddr);
    int32_t ret = 0;
    if (!ats->active_port.load()) {
        ATS_DEBUG("No active port update ip address will be when link Active\n");
    } else if (ats_sa_set_new_sr(ats) != 0) {
        ATS_ERROR(" ats_sa_set_new_sr Faild\n");
        ret = -1;
    }
    ATS_DEBUG("ATS ats_sa_update_ip_addrs sem up\n");
    up(&ats->ats_sem);
    return ret;
}

// Stores the name, and registers it if there is an active port. Returns 0 or -1. The caller holds `ats_sem`. May sleep.
int32_t store_and_register_name(ats_context_t* ats, const char* host_name, const char* operation)
{
    if (!host_name) {
        ATS_TRACE_AS(operation, ZR_ERROR, "ATS hostname is empty !\n");
        return -1;
    }
    ATS_TRACE_AS(operation, ZR_DEBUG, "host_name is %s\n", host_name);
    set_host_name(ats, host_name);
    if (!ats->active_port.load()) {
        ATS_TRACE_AS(operation, ZR_ERROR, "No active port update hostname will be when link Active\n");
        return 0;
    }
    if (ats_sa_set_new_sr(ats) == 0) return 0;
    ATS_TRACE_AS(operation, ZR_ERROR, "ats_sa_set_new_sr Failded\n");
    return -1;
}

} // namespace

int32_t ats_sa_init(ats_context_t* ats)
{
    sema_init(&ats->ats_sem, 1);
    init_waitqueue_head(&ats->delete_resp_wq);
    ATS_DEBUG("ats_hostName_str is %s\n", ats_hostName_str);
    set_host_name(ats, ats_hostName_str);
    ats->resp_recv = 0;

    if (const kq_return_t ret = kq_hca_open(&ats->hca_name, 0, &ats->hca); ret != kq_return_ok) {
        ATS_ERROR("kq_hca_open() failed <%d>\n", ret);
        return -1;
    }
    ats->holds_hca = true;
    if (ats_init_static_port_attributes(ats) != 0) {
        ATS_ERROR("Can't set local port static attributes.\n");
        return -1;
    }
    if (register_ports(ats, __func__) != 0) return -1;

    if (const int ret = gsi_dtgrm_pool_create_named(ats->gsi_pool_size, &ats->pool_handle, this_module.name);
        ret != 0) {
        ATS_ERROR("Can't allocate GSI datagram pool");
        ATS_ERROR("ATS - Can't allocate GSI datagram pool ret %d\n", ret);
        ats->pool_handle = nullptr;
        deregister_ports(ats);
        return -1;
    }
    ATS_DEBUG(" after gsi_dtgrm_pool_create, ret = %d\n", 0);

    const kq_request_event_record_t request = {.req_event_type = kq_async_even_all, .type = nullptr};
    if (const kq_return_t ret = kq_set_sleepable_async_event_cb(ats->hca, &request, ats_async_event_cb);
        ret != kq_return_ok) {
        ATS_ERROR("ATS - kq_set_sleepable_async_event_cb() failed <%d>\n\n", ret);
        gsi_dtgrm_pool_destroy(ats->pool_handle);
        ats->pool_handle = nullptr;
        deregister_ports(ats);
        return -1;
    }
    ats->holds_events = true;
    start_req_timer(ats);
    return 0;
}

int32_t ats_sa_update_hostname(ats_context_t* ats, const char* host_name)
{
    ATS_DEBUG("ATS ats_sa_update_hostname going to down_interruptible\n");
    if (down_interruptible(&ats->ats_sem) != 0) {
        ATS_ERROR("down_interruptible is not OK\n");
        return -1;
    }
    const int32_t ret = store_and_register_name(ats, host_name, __func__);
    ATS_DEBUG("ATS ats_sa_update_hostname sem up\n");
    up(&ats->ats_sem);
    return ret;
}

int32_t ats_sa_update_ip_addrs(ats_context_t* ats, uint32_t port_ipaddr)
{
    // Store the address before the wait for `ats_sem` in ats_sa_do_update_ip. A signal may end that wait. The next
    // registration then still contains the new address.
    set_port_addresses(ats, port_ipaddr);
    return ats_sa_do_update_ip(ats, port_ipaddr);
}

void ats_sa_stop(ats_context_t* ats)
{
    if (!ats->holds_hca) return; // the HCA is opened first and closed last: if it is not open, nothing else is held
    const uint32_t sets_before = ats->sets_tried;
    delete_all_records(ats, __func__);
    if (ats->holds_req_timer) del_timing_sync(&ats->ats_req_timer);
    ats->holds_req_timer = false;
    if (ats->holds_events) kq_dell_sleepable_async_event_cb(ats->hca, ats_async_event_cb);
    ats->holds_events = false;
    ats_sa_drop_pending_requests(ats);

    // A port event or self-verification may have sent a Set after the Deletes above. From here on, neither can send a
    // Set. If a Set was sent, delete again: a record at the SA never expires. If another host got the same address
    // later, a lookup of the address would find two records and fail.
    if (ats->sets_tried != sets_before) delete_all_records(ats, __func__);

    for (int32_t i = 0; i < ats->num_of_hca_ports; ++i)
        if (ats->ib_ports[i].gsi_handle) deregister_until_released(&ats->ib_ports[i], __func__);
    if (ats->pool_handle) gsi_dtgrm_pool_destroy(ats->pool_handle);
    ats->pool_handle = nullptr;
    for (int32_t i = 0; i < ats->num_of_hca_ports; ++i) {
        const ats_port_ctx_t* port = &ats->ib_ports[i];
        ATS_DEBUG(" Packets sent     through the GSI port %d: %llu.\n", port->port_num,
                  static_cast<unsigned long long>(port->gsi_tx_pkts));
        ATS_DEBUG(" Packets received through the GSI port %d: %llu.\n", port->port_num,
                  static_cast<unsigned long long>(port->gsi_rx_pkts));
    }
    kq_hca_close(ats->hca); // keep `hca`: ats_find_context still compares it for events of other HCAs
    ats->holds_hca = false;
}
