#include "host/peers/ibat/sa-ports.h"

#include <algorithm>
#include <cstring>

#include "kernel/sync.h"

namespace ibat
{
namespace
{

constexpr int32_t pool_size = 64;
constexpr unsigned long leave_pause_ticks = 10;
constexpr uint32_t sa_qpn = 1;

void put_sent_datagram(gsi_class_handle_t, void*, gsi_dtgrm_t* datagram)
{
    gsi_dtgrm_pool_put(datagram);
}

} // namespace

bool sa_ports::open(const callbacks& callbacks)
{
    count_ = 0;
    std::ranges::fill(classes_, nullptr);
    kq_hca_name name;
    if (kq_list_hcas(&name, 1) < 1) return false;
    if (kq_hca_open(&name, 0, &hca_) != kq_return_ok) return false;
    if (gsi_dtgrm_pool_create_named(pool_size, &pool_, "ibat paths") == 0) {
        if (join_ports(name, callbacks)) {
            const kq_request_event_record_t request = {.req_event_type = kq_async_even_all, .type = nullptr};
            event_ = callbacks.event;
            if (kq_set_sleepable_async_event_cb(hca_, &request, event_) == kq_return_ok) return true;
        }
        leave_ports();
        gsi_dtgrm_pool_destroy(pool_);
    }
    kq_hca_close(hca_);
    return false;
}

void sa_ports::close()
{
    kq_dell_sleepable_async_event_cb(hca_, event_);
    leave_ports();
    gsi_dtgrm_pool_destroy(pool_);
    kq_hca_close(hca_);
}

bool sa_ports::join_ports(const kq_hca_name& hca, const callbacks& callbacks)
{
    kq_hca_attrib_t attributes;
    if (kq_hca_query(hca_, &attributes) != kq_return_ok) return false;
    const int32_t count = std::min<int32_t>(attributes.port_num, most_ports);
    for (; count_ < count; ++count_)
        if (gsi_join_class(MAD_CLASS_SUBN_ADM, MAD_CLASS_VERSION_SUBN_ADM, &hca, count_ + 1, put_sent_datagram,
                           callbacks.receive_callback, callbacks.context, &classes_[count_]) != 0)
            return false;
    return true;
}

// Leaves the class on all ports. gsi_deregister_class() fails while a datagram of the class is being sent or delivered,
// so this function repeats the call until it succeeds. It does not wait for answers.
void sa_ports::leave_ports()
{
    for (; count_ > 0; --count_)
        while (gsi_deregister_class(classes_[count_ - 1]) != 0) schedule_timeout_uninterruptible(leave_pause_ticks);
}

bool sa_ports::read(uint32_t number, source_port* port) const
{
    if (number < 1 || number > static_cast<uint32_t>(count_)) return false;
    const auto port_number = static_cast<kq_port_num_t>(number);
    kq_port_attrib_t attributes;
    if (kq_port_query(hca_, port_number, &attributes) != kq_return_ok) return false;
    if (attributes.port_state != kq_state_linkActive) return false;
    int gids = 1, p_keys = 1;
    *port = {};
    port->number = number;
    port->lid = attributes.port_base_lid;
    port->sm_lid = attributes.port_sma_address_info.sm_lid;
    port->sm_sl = attributes.port_sma_address_info.service_level;
    return kq_get_port_gid_tbl(hca_, port_number, &gids, &port->gid) == kq_return_ok && gids == 1 &&
           kq_get_port_partition_tbl(hca_, port_number, &p_keys, &port->p_key) == kq_return_ok && p_keys == 1;
}

bool sa_ports::send(const source_port& port, const sa_mad_v2_t& request) const
{
    gsi_dtgrm_t* datagram;
    if (gsi_dtgrm_pool_get(pool_, &datagram) != 0) return false;
    memcpy(datagram->mad, &request, sizeof request);
    datagram->rqp = sa_qpn;
    datagram->rqk = 0;
    datagram->rlid = port.sm_lid;
    datagram->sl = port.sm_sl;
    datagram->guid = 0;
    datagram->path_bits = 0;
    datagram->static_rate = 0;
    if (gsi_post_send_dtgrm(classes_[port.number - 1], datagram, nullptr) == 0) return true;
    gsi_dtgrm_pool_put(datagram);
    return false;
}

} // namespace ibat
