// The delivery of datagrams in the embedded subnet: HCAs send them, and the fabric task delivers them.
#include <algorithm>
#include <cassert>
#include <optional>

#include "host/exec/brief-lock.h"
#include "host/exec/task.h"
#include "host/fabric/embedded/subnet-hca.h"

namespace embedded
{

namespace
{

constexpr uint32_t qp1 = 1;
static_assert(exec::never == UINT64_MAX, "next_due_tick() of an empty queue must mean to park without a deadline");

// Returns the index of the first P_Key in `table` that matches `p_key`, or -1. Two P_Keys match if they name the same
// partition and at least one of them belongs to a full member (IBA 10.9.3). P_Keys of partition 0 are invalid and match
// nothing.
int matching_p_key(const std::vector<uint16_t>& table, uint16_t p_key)
{
    constexpr uint16_t full_member = 0x8000;
    if ((p_key & ~full_member) == 0) return -1;
    for (size_t i = 0; i < table.size(); ++i)
        if (((table[i] ^ p_key) & ~full_member) == 0 && ((table[i] | p_key) & full_member)) return static_cast<int>(i);
    return -1;
}

} // namespace

fabric::port_attributes subnet_hca::read_port(int port)
{
    std::lock_guard lock(net_.mutex_);
    const port_record& record = ports.at(static_cast<size_t>(port - 1));
    return {.state = record.state,
            .lid = record.lid,
            .sm_lid = record.sm_lid,
            .sm_sl = record.sm_sl,
            .mtu = net_.options_.mtu,
            .bad_p_keys = record.bad_p_keys,
            .bad_q_keys = record.bad_q_keys,
            .gids = {record.gid},
            .p_keys = record.p_keys};
}

bool subnet::send(subnet_hca& hca, int port, const fabric::address& destination, const fabric::mad_bytes& mad)
{
    if (port < 1 || port > hca.port_count()) return false;
    port_record& source = hca.ports[static_cast<size_t>(port - 1)];
    lock_guard lock(mutex_);
    datagram* datagram = is_send_refused() ? nullptr : queue_.take();
    if (!datagram) {
        ++counts_.refused;
        if (observer_) observer_->refused(exec_.now(), mad, view_of(source));
        return false;
    }
    ++counts_.sent;
    const bool has_p_key = destination.p_key_index < source.p_keys.size();
    *datagram = {.mad = mad,
                 .source_lid = source.lid,
                 .destination_lid = destination.lid,
                 .destination_qpn = destination.qpn,
                 .q_key = destination.q_key,
                 .p_key = has_p_key ? source.p_keys[destination.p_key_index] : uint16_t{0},
                 .sl = destination.sl,
                 .static_rate = destination.static_rate,
                 .is_from_sa = false};
    observe_send(*datagram, &source);
    if (!source.is_active() || !has_p_key) {
        lose(*datagram, has_p_key ? "the port is down" : "the port has no such P_Key");
        return true;
    }
    const uint64_t now_ticks = exec_.now();
    if (tap_) tap_->crossed(now_ticks, source.lid, destination, mad);
    if (source.is_cut_outbound) {
        lose_at_cut(source, *datagram);
        return true;
    }
    dispatch(*datagram, now_ticks);
    wake_fabric(lock);
    return true;
}

bool subnet::is_send_refused()
{
    const bool is_full = faults.queue_full;
    const bool is_drawn = !is_full && draw(faults.refuse_percent);
    effects_.sends_refused_queue_full += is_full;
    effects_.sends_refused_by_chance += is_drawn;
    return is_full || is_drawn;
}

void subnet::set_listener(subnet_hca& hca, fabric::listener* listener)
{
    if (exec::current_task() == fabric_task_) exec::panic("%s: a listener called listen()", hca.name().c_str());
    lock_guard lock(mutex_);
    hca.listener = listener;
    // Wait until a call of the previous listener has ended. The wait is short, because a listener must not sleep.
    while (called_hca_ == &hca) {
        lock.unlock();
        exec_.relax();
        lock.lock();
    }
}

void subnet::wake_fabric(lock_guard& lock)
{
    const bool was_asleep = is_asleep_;
    is_asleep_ = false;
    lock.unlock();
    if (was_asleep) exec_.wake(*fabric_task_);
}

void subnet::run_fabric()
{
    lock_guard lock(mutex_);
    while (!is_stopping_) {
        exec::count(rounds_);
        if (report_next_change(lock)) continue;
        if (datagram* datagram = queue_.next_due(exec_.now())) {
            deliver(*datagram, lock);
            continue;
        }
        is_asleep_ = true;
        const uint64_t next_due_tick = queue_.next_due_tick();
        lock.unlock();
        exec_.park(next_due_tick, "datagrams", "fabric");
        lock.lock();
        is_asleep_ = false;
    }
}

template <class call_t>
void subnet::call_listener(subnet_hca& hca, lock_guard& lock, const call_t& call)
{
    assert(!called_hca_ && hca.listener);
    fabric::listener& listener = *hca.listener;
    called_hca_ = &hca;
    lock.unlock();
    call(listener);
    lock.lock();
    called_hca_ = nullptr;
}

bool subnet::report_next_change(lock_guard& lock)
{
    if (changes_.empty()) return false;
    const pending_change next = changes_.front();
    changes_.pop_front();
    if (next.hca->listener)
        call_listener(*next.hca, lock,
                      [&](fabric::listener& listener) { listener.port_changed(next.port, next.change, next.sm_lid); });
    return true;
}

void subnet::deliver(datagram& datagram, lock_guard& lock)
{
    if (datagram.destination_lid != sm_lid_) {
        deliver_to_port(datagram, lock);
        return;
    }
    if (keep_waiting_for_sa(datagram)) return;
    count_arrival(datagram);
    const std::optional<embedded::datagram> request = observer_ ? std::optional(datagram) : std::nullopt;
    if (const char* const reason = answer_as_sa(datagram)) {
        if (request) datagram.mad = request->mad; // an answer that is lost has already replaced it
        return ignore(datagram, reason);
    }
    if (request) observe_arrival(*request, nullptr);
    observe_send(datagram, nullptr);
    dispatch(datagram, service_end_tick(exec_.now()));
}

// Returns true if the SA must not serve the request now. Then the request waits for the end of its service time. If the
// queue of the SA is full, the request has been dropped instead.
bool subnet::keep_waiting_for_sa(datagram& datagram)
{
    if (!sa_queue_ || datagram.is_admitted || faults.sa_silent) return false;
    const uint64_t now_ticks = exec_.now();
    const uint64_t end_tick = sa_queue_->admit(datagram.mad, sa_.records.size(), now_ticks);
    if (end_tick == exec::never) {
        ignore(datagram, "the queue of the SA is full");
        return true;
    }
    datagram.is_admitted = true;
    if (end_tick == now_ticks) return false;
    queue_.post(datagram, end_tick);
    return true;
}

void subnet::count_arrival(const datagram& datagram)
{
    const datagram_faults& marks = datagram.faults;
    effects_.arrived_late += marks.is_late;
    effects_.arrived_jittered += marks.is_jittered;
    effects_.arrived_corrupted += marks.is_corrupted;
    effects_.arrived_twice += marks.is_twin;
    effects_.overtaken += marks.is_held_back && datagram.departure < latest_arrived_departure_;
    latest_arrived_departure_ = std::max(latest_arrived_departure_, datagram.departure);
}

// Turns a request to the SA into the datagram of the answer. Returns null, or the reason why the SA does not answer.
const char* subnet::answer_as_sa(datagram& request)
{
    if (request.destination_qpn != qp1 || request.q_key != fabric::qp1_q_key) return "it is not for QP1";
    const int p_key_index = matching_p_key(options_.p_keys, request.p_key);
    if (p_key_index < 0) return "its sender is in another partition";
    if (const char* const reason = serve_as_sa(request.mad)) return reason;

    std::swap(request.source_lid, request.destination_lid); // the answer uses the reverse path
    request.p_key = options_.p_keys[static_cast<size_t>(p_key_index)];
    request.is_from_sa = true;
    request.faults = {};
    return nullptr;
}

// Replaces the MAD of a request with the SA's answer. Returns null, or the reason why the SA does not answer. The
// caller holds the lock.
const char* subnet::serve_as_sa(fabric::mad_bytes& mad)
{
    if (faults.sa_silent) {
        ++effects_.requests_met_by_silence;
        return "the SA is silent";
    }

    bool is_answered = false;
    if (use_up(faults.sa_status_count)) {
        is_answered = sa_.refuse(mad, faults.sa_status, counts_);
        effects_.requests_answered_status += is_answered;
    } else if (faults.sa_busy) {
        is_answered = sa_.refuse(mad, MAD_STATUS_BUSY, counts_);
        effects_.requests_answered_busy += is_answered;
    } else {
        is_answered = sa_.answer(mad, exec_.now(), counts_);
    }
    if (!is_answered) return "the SA answers no such datagram";
    effects_.requests_after_hand_over += sm_lid_ != options_.sm_lid;
    if (use_up(faults.drop_next_answers)) {
        ++effects_.answers_dropped;
        return "the SA served it, but its answer was lost";
    }
    return nullptr;
}

bool subnet::ask_sa(fabric::mad_bytes& mad)
{
    const lock_guard lock(mutex_);
    return !serve_as_sa(mad);
}

void subnet::deliver_to_port(datagram& datagram, lock_guard& lock)
{
    const uint16_t lid = datagram.destination_lid;
    port_record* port = lid < port_by_lid_.size() ? port_by_lid_[lid] : nullptr;
    if (!port) return ignore(datagram, "no port has this LID");
    if (!port->is_active()) return ignore(datagram, "the port is down");
    if (port->is_cut_inbound) return lose_at_cut(*port, datagram);
    if (datagram.destination_qpn != qp1) return ignore(datagram, "it is not for QP1");
    const int p_key_index = matching_p_key(port->p_keys, datagram.p_key);
    if (p_key_index < 0) {
        ++port->bad_p_keys;
        return ignore(datagram, "its sender is in another partition");
    }
    if (datagram.q_key != fabric::qp1_q_key) {
        ++port->bad_q_keys;
        return ignore(datagram, "its Q_Key is wrong");
    }

    fabric::address destination{.lid = lid,
                                .sl = datagram.sl,
                                .static_rate = datagram.static_rate,
                                .p_key_index = static_cast<uint16_t>(p_key_index)};
    if (tap_ && datagram.is_from_sa) tap_->crossed(exec_.now(), datagram.source_lid, destination, datagram.mad);
    if (!port->owner->listener) return ignore(datagram, "nobody listens at the HCA");
    fabric::address source = destination; // the path back has the same attributes
    source.lid = datagram.source_lid;
    ++counts_.arrived;
    count_arrival(datagram);
    observe_arrival(datagram, port);
    call_listener(*port->owner, lock,
                  [&](fabric::listener& listener) { listener.mad_arrived(port->number, source, datagram.mad); });
    queue_.put(datagram);
}

// Decides which faults of the wire affect a datagram that leaves its sender. Then drops the datagram, or posts it to
// the queue, perhaps with a duplicate.
void subnet::dispatch(datagram& datagram, uint64_t now_ticks)
{
    if (use_up(faults.drop_next)) {
        ++effects_.dropped_next;
        return lose(datagram, "lost on the way");
    }
    if (draw(faults.loss_percent)) {
        ++effects_.lost_by_chance;
        return lose(datagram, "lost on the way");
    }
    datagram.faults = {};
    if (draw(faults.corrupt_percent)) {
        datagram.faults.is_corrupted = true;
        datagram.mad[dice_() % datagram.mad.size()] ^= static_cast<uint8_t>(1 + dice_() % UINT8_MAX);
        ++counts_.corrupted;
    }
    queue_.post(datagram, due_tick(datagram, now_ticks));
    if (!draw(faults.duplicate_percent)) return;
    if (auto* twin = queue_.take()) {
        *twin = datagram;
        twin->faults.is_twin = true;
        queue_.post(*twin, due_tick(*twin, now_ticks));
        ++counts_.duplicated;
    }
}

// Drops a datagram before the end of its way.
void subnet::lose(datagram& datagram, const char* reason)
{
    drop(datagram, reason, false);
}

void subnet::lose_at_cut(port_record& port, datagram& datagram)
{
    ++port.lost_at_cuts;
    lose(datagram, "the port is cut off");
}

// Drops a datagram at the end of its way, for example because the receiver does not accept it.
void subnet::ignore(datagram& datagram, const char* reason)
{
    drop(datagram, reason, true);
}

void subnet::drop(datagram& datagram, const char* reason, bool has_reached_end)
{
    ++counts_.dropped;
    if (observer_)
        observer_->lost(exec_.now(), {datagram.number, datagram.mad, datagram.faults}, reason, has_reached_end);
    queue_.put(datagram);
}

void subnet::report_send(const datagram& datagram, const port_record* sender)
{
    const std::optional<port_view> view = sender ? std::optional(view_of(*sender)) : std::nullopt;
    observer_->sent(exec_.now(), {datagram.number, datagram.mad, datagram.faults}, view ? &*view : nullptr,
                    datagram.destination_lid);
}

void subnet::report_arrival(const datagram& datagram, const port_record* receiver)
{
    const std::optional<port_view> view = receiver ? std::optional(view_of(*receiver)) : std::nullopt;
    observer_->arrived(exec_.now(), {datagram.number, datagram.mad, datagram.faults}, view ? &*view : nullptr);
}

uint64_t subnet::due_tick(datagram& datagram, uint64_t now_ticks)
{
    const uint64_t latency = faults.latency_ticks, most_jitter = faults.jitter_ticks;
    const uint64_t jitter = most_jitter > 0 ? dice_() % (most_jitter + 1) : 0;
    datagram.departure = ++departure_count_;
    datagram.faults.is_late = latency > 0;
    datagram.faults.is_jittered = jitter > 0;
    datagram.faults.is_held_back = draw(faults.reorder_percent);
    return now_ticks + latency + jitter + datagram.faults.is_held_back;
}

// Call it for a request that the SA has just answered. Returns the tick at which the answer leaves. The SA serves one
// request after another, each for faults.sa_service_ticks.
uint64_t subnet::service_end_tick(uint64_t now_ticks)
{
    sa_busy_until_tick_ = std::max(sa_busy_until_tick_, now_ticks) + faults.sa_service_ticks;
    effects_.requests_kept_waiting += sa_busy_until_tick_ > now_ticks;
    return sa_busy_until_tick_;
}

// Returns true with a probability of `percent`. For 0, draws no random number, so a fault that is off does not change
// the other draws.
bool subnet::draw(uint32_t percent)
{
    return percent > 0 && dice_() % 100 < percent;
}

} // namespace embedded
