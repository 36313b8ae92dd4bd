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

constexpr uint64_t quiet_ms = 20; // after this quiet time at the end, nothing more arrives
constexpr int most_drained = 4096;

// An answer may end after its record: OpenSM under ibsim sends no more bytes. A shorter answer with status 0 is
// incomplete: its record would end in zeros.
bool is_long_enough(const sa_mad_v2_t& answer, int length)
{
    const bool has_record = from_wire(answer.hdr.u.ns.status.raw16) == 0 &&
                            from_wire(std::bit_cast<be16_t>(answer.hdr.attrib_id)) == SA_ATTR_SERVICE_RECORD;
    const size_t least = offsetof(sa_mad_v2_t, payload) + (has_record ? sizeof(ib_service_record_v2_t) : 0);
    return static_cast<size_t>(length) >= least;
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

// Sleeps for one tick. A poll() during that tick extends the sleep by another tick. A task that stops polling therefore
// delays further answers for two ticks at most.
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

// Receives one datagram at a time and passes it on before it receives the next one. While the port is busy, the
// listener relies on another may_complete(). This function therefore makes the call once more when nothing has arrived.
// Returns false if nothing arrived, or nothing for the listener.
bool port::receive_next()
{
    const bool was_busy = is_busy_;
    is_busy_ = device_.is_open() && receive_one();
    check_due_ = watch_.next_due();
    if (is_busy_ || was_busy) events_.may_complete(is_busy_);
    return is_busy_;
}

// A program under ibsim may hang in the simulator's exit handler if it ends while datagrams are still on their way to
// it.
void port::drain()
{
    const std::lock_guard lock(receive_mutex_);
    device::packet packet; // ignored
    for (int i = 0; i < most_drained && device_.is_open(); ++i) {
        if (device_.receive(packet) != device::arrival::nothing) continue;
        device_.wait(quiet_ms);
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

// A returned request has failed. The listener is not called, because all senders of requests have time-outs of their
// own.
void port::handle_returned(device::packet& packet)
{
    ++counts_.timed_out;
    transactions_.end(from_wire(packet.sa_mad().hdr.transact_id));
}

} // namespace umad
