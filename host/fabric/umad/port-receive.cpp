// Receives datagrams through a port: chooses the task that receives, and passes the datagrams on.
#include "host/fabric/umad/port.h"

#include <algorithm>
#include <arpa/inet.h>
#include <bit>
#include <cassert>

namespace umad
{

namespace
{

constexpr uint64_t drain_ms = 20; // drain() ends when nothing has arrived for this time
constexpr int most_drained = 4096;

// Returns false if an answer is incomplete. An answer with status 0 about ServiceRecords must contain a whole record.
// It may end after the record: OpenSM under ibsim sends no further bytes. Any other answer must contain all headers.
bool is_long_enough(const sa_mad_v2_t& answer, int length)
{
    const bool has_record = from_wire(answer.hdr.u.ns.status.raw16) == 0 &&
                            from_wire(std::bit_cast<be16_t>(answer.hdr.attrib_id)) == SA_ATTR_SERVICE_RECORD;
    const size_t minimum_bytes = offsetof(sa_mad_v2_t, payload) + (has_record ? sizeof(ib_service_record_v2_t) : 0);
    return static_cast<size_t>(length) >= minimum_bytes;
}

} // namespace

void port::run()
{
    while (!is_stopping_) {
        rounds_.fetch_add(1, std::memory_order_relaxed);
        if (context_.exec.now() >= check_due_)
            check_port();
        else if (is_polled_.exchange(false))
            leave_to_poller();
        else
            wait_and_receive();
    }
    drain();
}

void port::check_port()
{
    const std::lock_guard lock(receive_mutex_);
    const uint64_t now = context_.exec.now();
    update_state(now);
    check_sa_silence(now);
    check_due_ = watch_.next_due();
}

// The port's task sleeps for one tick, while another task receives in poll(). If that task calls poll() again during
// this tick, run() lets the port's task sleep for another tick. If that task stops polling, the port's task receives
// again after two ticks at most.
void port::leave_to_poller()
{
    context_.exec.park(context_.exec.now() + 1, "arrivals", name_.c_str());
}

void port::wait_and_receive()
{
    const uint64_t now = context_.exec.now(), due = check_due_;
    device_.wait(is_busy_ ? 1 : due - std::min(due, now));
    const std::unique_lock lock(receive_mutex_, std::try_to_lock);
    if (lock)
        receive_next();
    else
        leave_to_poller(); // another task receives already
}

bool port::poll()
{
    if (!is_busy_ || context_.exec.now() >= check_due_) return false;
    const std::unique_lock lock(receive_mutex_, std::try_to_lock);
    if (!lock || !is_busy_) return false;
    assert(task_);
    is_polled_ = true;
    device_.wait(1);
    if (receive_next()) return true;
    is_polled_ = false;
    context_.exec.wake(*task_);
    return false;
}

// Receives one datagram, if one is ready, and passes it on. While the port is busy, every may_complete() promises
// another may_complete(). Therefore this function also calls may_complete() when the port stops being busy. Returns
// true if the datagram was an answer of the SA, or a request to the SA that the kernel has returned.
bool port::receive_next()
{
    const bool was_busy = is_busy_;
    is_busy_ = device_.is_open() && receive_one();
    check_due_ = watch_.next_due();
    if (is_busy_ || was_busy) events_.may_complete(is_busy_);
    return is_busy_;
}

// Receives the last datagrams, ignores them, and closes the device. If nobody received these datagrams, a program under
// ibsim might hang in the simulator's exit handler.
void port::drain()
{
    const std::lock_guard lock(receive_mutex_);
    device::packet packet; // ignored
    for (int i = 0; i < most_drained && device_.is_open(); ++i) {
        if (device_.receive(packet) != device::arrival::nothing) continue;
        device_.wait(drain_ms);
        if (device_.receive(packet) == device::arrival::nothing) break;
    }
    device_.close();
}

bool port::receive_one()
{
    device::packet packet;
    const device::arrival arrival = device_.receive(packet);
    if (arrival == device::arrival::nothing) return false;
    if (arrival == device::arrival::gone) {
        close_lost_device();
        return false;
    }
    const bool is_from_sa = packet.receiver == device::client::sa;
    if (arrival == device::arrival::datagram && is_from_sa) handle_sa_answer(packet);
    if (arrival == device::arrival::datagram && !is_from_sa) handle_self_answer(packet);
    if (arrival == device::arrival::returned && is_from_sa) handle_returned(packet);
    return is_from_sa;
}

void port::handle_self_answer(device::packet& packet)
{
    const auto attributes = watch_.accept(packet.mad(), context_.exec.now());
    if (attributes) set_attributes(*attributes, condition_of(*attributes));
}

void port::handle_sa_answer(device::packet& packet)
{
    sa_mad_v2_t& answer = packet.sa_mad();
    if (!is_long_enough(answer, packet.length)) {
        ++counts_.too_short;
        return report_once(is_short_reported_,
                           "an answer is shorter than a record and is ignored; further ones are not reported");
    }
    const auto transaction = answer.hdr.m.r ? transactions_.end(from_wire(answer.hdr.transact_id)) : std::nullopt;
    if (!transaction) {
        ++counts_.strays;
        return report_once(is_stray_reported_, "a datagram answers no request in flight (it may be late) and is "
                                               "ignored; further ones are not reported");
    }
    answer.hdr.transact_id = to_wire(*transaction);
    deliver(packet);
}

void port::deliver(device::packet& packet)
{
    const ib_mad_addr_t& umad_address = packet.address();
    const fabric::address source{.lid = ntohs(umad_address.lid),
                                 .sl = umad_address.sl,
                                 .path_bits = umad_address.path_bits,
                                 .qpn = ntohl(umad_address.qpn),
                                 .p_key_index = umad_address.pkey_index};
    fabric::address destination = source;
    destination.lid = lid_;
    destination.qpn = 1;
    context_.show_tap(source.lid, destination, packet.mad());
    ++counts_.arrived;
    unanswered_requests_ = 0;
    if (const std::string remark = remarks_.remark_on(packet.sa_mad()); !remark.empty()) report(remark);
    events_.mad_arrived(source, packet.mad());
}

// The kernel has returned a request without an answer. The listener is not called, because all senders of requests have
// time-outs of their own.
void port::handle_returned(device::packet& packet)
{
    ++counts_.timed_out;
    transactions_.end(from_wire(packet.sa_mad().hdr.transact_id));
}

} // namespace umad
