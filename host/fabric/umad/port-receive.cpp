// What comes in through a port: who takes it in, and what becomes of it.
#include "host/fabric/umad/port.h"

#include <algorithm>
#include <arpa/inet.h>
#include <bit>

namespace umad
{

namespace
{

constexpr uint64_t quiet_ms = 20; // at the end: nothing more is coming
constexpr int most_drained = 4096;

// An answer may end where its record does: OpenSM under ibsim sends no more. A good one that ends before would be read
// as a record with zeros in it.
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
    while (!stopping_) {
        if (around_.exec.now() >= look_due_)
            watch();
        else if (is_polled_.exchange(false))
            stand_back();
        else
            receive();
    }
    drain();
}

void port::watch()
{
    const std::lock_guard lock(receiving_);
    const uint64_t now = around_.exec.now();
    look(now);
    watch_sa(now);
    look_due_ = watch_.next_due();
}

// For a tick, and for the next if there was another poll meanwhile: a task that polls no more, or that what it does
// with an answer puts to sleep, keeps nothing waiting for long.
void port::stand_back()
{
    around_.exec.park(around_.exec.now() + 1, "arrivals", called_.c_str());
}

void port::receive()
{
    const uint64_t now = around_.exec.now(), due = look_due_;
    device_.wait(is_busy_ ? 1 : due - std::min(due, now));
    const std::unique_lock lock(receiving_, std::try_to_lock);
    if (lock)
        take_in();
    else
        stand_back(); // a task that polls was faster
}

bool port::poll()
{
    if (!is_busy_ || around_.exec.now() >= look_due_) return false;
    const std::unique_lock lock(receiving_, std::try_to_lock);
    if (!lock || !is_busy_) return false;
    is_polled_ = true;
    device_.wait(1);
    if (take_in()) return true;
    is_polled_ = false;
    around_.exec.wake(*task_);
    return false;
}

// One datagram at a time, so that what it leads to is on its way before the next is looked at. While the port is busy
// its listener counts on another call; so whoever finds nothing any more says so.
bool port::take_in()
{
    const bool was_busy = is_busy_;
    is_busy_ = device_.is_open() && receive_one();
    look_due_ = watch_.next_due();
    if (is_busy_ || was_busy) events_.may_complete(is_busy_);
    return is_busy_;
}

// A program under ibsim that ends while datagrams are on their way to it may hang in the simulator's exit handler.
void port::drain()
{
    const std::lock_guard lock(receiving_);
    device::packet ignored;
    for (int i = 0; i < most_drained && device_.is_open(); ++i) {
        if (device_.receive(ignored) != device::outcome::nothing) continue;
        device_.wait(quiet_ms);
        if (device_.receive(ignored) == device::outcome::nothing) break;
    }
    device_.close();
}

bool port::receive_one()
{
    device::packet arrived;
    switch (device_.receive(arrived)) {
    case device::outcome::nothing:
        return false;
    case device::outcome::gone:
        lose_device();
        return false;
    case device::outcome::returned:
        take_returned(arrived);
        break;
    case device::outcome::datagram:
        take(arrived);
        break;
    }
    return arrived.to == device::client::sa;
}

void port::take(device::packet& arrived)
{
    if (arrived.to == device::client::self) {
        if (const auto told = watch_.answered(arrived.mad(), around_.exec.now())) learn(*told, condition_of(*told));
        return;
    }
    sa_mad_v2_t& answer = arrived.sa_mad();
    if (!is_long_enough(answer, arrived.length)) {
        ++counts_.too_short;
        return say_once(said_short_, "an answer is shorter than a record and is ignored, as others like it will be");
    }
    const auto transaction = answer.hdr.m.r ? under_way_.end(from_wire(answer.hdr.transact_id)) : std::nullopt;
    if (!transaction) {
        ++counts_.strays;
        return say_once(said_stray_, "a datagram answers no request under way (it may be late) and is ignored, as "
                                     "others like it will be");
    }
    answer.hdr.transact_id = to_wire(*transaction);
    deliver(arrived);
}

void port::deliver(device::packet& arrived)
{
    const ib_mad_addr_t& from = arrived.address();
    fabric::address far{.lid = ntohs(from.lid),
                        .sl = from.sl,
                        .path_bits = from.path_bits,
                        .qpn = ntohl(from.qpn),
                        .p_key_index = from.pkey_index};
    fabric::address here = far;
    here.lid = lid_;
    here.qpn = 1;
    around_.show_tap(far.lid, here, arrived.mad());
    ++counts_.arrived;
    sent_since_answer_ = 0;
    if (const std::string remark = remarks_.on(arrived.sa_mad()); !remark.empty()) say(remark);
    events_.arrived(far, arrived.mad());
}

// What comes back is over. Nobody is told: whoever waits for the answer has a time-out of his own.
void port::take_returned(device::packet& arrived)
{
    if (arrived.to == device::client::self) return;
    ++counts_.timed_out;
    under_way_.end(from_wire(arrived.sa_mad().hdr.transact_id));
}

} // namespace umad
