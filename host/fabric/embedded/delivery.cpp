// How the embedded subnet carries datagrams: what a send does, and the fabric task.
#include <algorithm>

#include "host/exec/task.h"
#include "host/fabric/embedded/subnet-hca.h"

namespace embedded
{

namespace
{

constexpr uint32_t qp1 = 1;
static_assert(exec::never == UINT64_MAX, "an empty delivery queue has its next datagram due at no time");

// IBA 10.9.3: two P_Keys match when they name the same partition and at least one is of a full member. Returns the
// index in the table, or -1.
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
    const port_record& now = ports.at(static_cast<size_t>(port - 1));
    return {.state = now.state,
            .lid = now.lid,
            .sm_lid = now.sm_lid,
            .sm_sl = now.sm_sl,
            .mtu = net_.options_.mtu,
            .bad_p_keys = now.bad_p_keys,
            .bad_q_keys = now.bad_q_keys,
            .gids = {now.gid},
            .p_keys = now.p_keys};
}

bool subnet::send(subnet_hca& from, int port, const fabric::address& destination, const fabric::mad_bytes& mad)
{
    if (port < 1 || port > from.port_count()) return false;
    const port_record& source = from.ports[static_cast<size_t>(port - 1)];
    lock_guard lock(mutex_);
    datagram* leaving = is_refused() ? nullptr : queue_.take();
    if (!leaving) {
        ++counts_.refused;
        return false;
    }
    ++counts_.sent;
    if (!source.is_active() || destination.p_key_index >= source.p_keys.size()) {
        lose(*leaving);
        return true;
    }
    *leaving = {.mad = mad,
                .source_lid = source.lid,
                .destination_lid = destination.lid,
                .destination_qpn = destination.qpn,
                .q_key = destination.q_key,
                .p_key = source.p_keys[destination.p_key_index],
                .sl = destination.sl,
                .static_rate = destination.static_rate,
                .from_sa = false};
    const uint64_t now_ticks = exec_.now();
    if (tap_) tap_->crossed(now_ticks, source.lid, destination, mad);
    set_out(*leaving, now_ticks);
    wake_fabric(lock);
    return true;
}

bool subnet::is_refused()
{
    const bool is_full = faults.queue_full;
    const bool by_chance = !is_full && chance(faults.refuse_percent);
    effects_.sends_refused_queue_full += is_full;
    effects_.sends_refused_by_chance += by_chance;
    return is_full || by_chance;
}

void subnet::set_listener(subnet_hca& of, fabric::listener* to)
{
    if (exec::current_task() == fabric_task_) exec::panic("%s: a listener called listen()", of.name().c_str());
    lock_guard lock(mutex_);
    of.told = to;
    // A running call is short: it may not sleep.
    while (calling_ == &of) {
        lock.unlock();
        exec_.relax();
        lock.lock();
    }
}

void subnet::wake_fabric(lock_guard& lock)
{
    const bool wake = asleep_;
    asleep_ = false;
    lock.unlock();
    if (wake) exec_.wake(*fabric_task_);
}

void subnet::carry()
{
    lock_guard lock(mutex_);
    while (!stopping_) {
        if (tell_next_change(lock)) continue;
        if (datagram* due = queue_.next_due(exec_.now())) {
            deliver(*due, lock);
            continue;
        }
        asleep_ = true;
        const uint64_t next_due_tick = queue_.next_due_tick();
        lock.unlock();
        exec_.park(next_due_tick, "datagrams", "fabric");
        lock.lock();
        asleep_ = false;
    }
}

template <class call_t>
void subnet::call_listener(subnet_hca& at, lock_guard& lock, const call_t& call)
{
    fabric::listener& listener = *at.told;
    calling_ = &at;
    lock.unlock();
    call(listener);
    lock.lock();
    calling_ = nullptr;
}

bool subnet::tell_next_change(lock_guard& lock)
{
    if (changes_.empty()) return false;
    const pending_change next = changes_.front();
    changes_.pop_front();
    if (next.at->told)
        call_listener(*next.at, lock,
                      [&](fabric::listener& told) { told.port_changed(next.port, next.change, next.sm_lid); });
    return true;
}

void subnet::deliver(datagram& arriving, lock_guard& lock)
{
    if (arriving.destination_lid != sm_lid_)
        deliver_to_port(arriving, lock);
    else {
        count_arrival(arriving);
        if (answer_as_sa(arriving))
            set_out(arriving, served_tick(exec_.now()));
        else
            lose(arriving);
    }
}

void subnet::count_arrival(const datagram& arrived)
{
    effects_.arrived_late += arrived.way.is_late;
    effects_.arrived_jittered += arrived.way.is_jittered;
    effects_.arrived_corrupted += arrived.way.is_corrupted;
    effects_.arrived_twice += arrived.way.is_twin;
    effects_.overtaken += arrived.way.is_held_back && arrived.way.departure < latest_departure_arrived_;
    latest_departure_arrived_ = std::max(latest_departure_arrived_, arrived.way.departure);
}

bool subnet::answer_as_sa(datagram& request)
{
    if (request.destination_qpn != qp1 || request.q_key != fabric::qp1_q_key) return false;
    const int p_key_index = matching_p_key(options_.p_keys, request.p_key);
    if (p_key_index < 0 || !serve_as_sa(request.mad)) return false;

    std::swap(request.source_lid, request.destination_lid); // back by the path it came
    request.p_key = options_.p_keys[static_cast<size_t>(p_key_index)];
    request.from_sa = true;
    return true;
}

// Turns a request into the SA's answer, in place; false: none leaves. The caller holds the lock.
bool subnet::serve_as_sa(fabric::mad_bytes& mad)
{
    if (faults.sa_silent) {
        ++effects_.requests_met_by_silence;
        return false;
    }

    bool answered;
    if (use_up(faults.sa_status_count)) {
        answered = sa_.refuse(mad, faults.sa_status, counts_);
        effects_.requests_answered_status += answered;
    } else if (faults.sa_busy) {
        answered = sa_.refuse(mad, MAD_STATUS_BUSY, counts_);
        effects_.requests_answered_busy += answered;
    } else {
        answered = sa_.answer(mad, exec_.now(), counts_);
    }
    if (!answered) return false;
    effects_.requests_after_hand_over += sm_lid_ != options_.sm_lid;
    if (use_up(faults.drop_next_answers)) {
        ++effects_.answers_dropped;
        return false;
    }
    return true;
}

bool subnet::ask_sa(fabric::mad_bytes& mad)
{
    const lock_guard lock(mutex_);
    return serve_as_sa(mad);
}

void subnet::deliver_to_port(datagram& arriving, lock_guard& lock)
{
    const uint16_t lid = arriving.destination_lid;
    port_record* port = lid < port_by_lid_.size() ? port_by_lid_[lid] : nullptr;
    if (!port || !port->is_active() || arriving.destination_qpn != qp1) return lose(arriving);
    const int p_key_index = matching_p_key(port->p_keys, arriving.p_key);
    if (p_key_index < 0) {
        ++port->bad_p_keys;
        return lose(arriving);
    }
    if (arriving.q_key != fabric::qp1_q_key) {
        ++port->bad_q_keys;
        return lose(arriving);
    }

    // From here on the far end's address: the path is the same both ways.
    fabric::address far{.lid = lid,
                        .sl = arriving.sl,
                        .static_rate = arriving.static_rate,
                        .p_key_index = static_cast<uint16_t>(p_key_index)};
    if (tap_ && arriving.from_sa) tap_->crossed(exec_.now(), arriving.source_lid, far, arriving.mad);
    if (!port->owner->told) return lose(arriving);
    far.lid = arriving.source_lid;
    ++counts_.arrived;
    count_arrival(arriving);
    call_listener(*port->owner, lock,
                  [&](fabric::listener& told) { told.mad_arrived(port->number, far, arriving.mad); });
    queue_.put(arriving);
}

void subnet::set_out(datagram& leaving, uint64_t now_ticks)
{
    if (use_up(faults.drop_next)) {
        ++effects_.dropped_next;
        return lose(leaving);
    }
    if (chance(faults.loss_percent)) {
        ++effects_.lost_by_chance;
        return lose(leaving);
    }
    leaving.way = {};
    if (chance(faults.corrupt_percent)) {
        leaving.way.is_corrupted = true;
        leaving.mad[dice_() % leaving.mad.size()] ^= static_cast<uint8_t>(1 + dice_() % UINT8_MAX);
        ++counts_.corrupted;
    }
    queue_.post(leaving, due_tick(leaving, now_ticks));
    if (!chance(faults.duplicate_percent)) return;
    if (datagram* twin = queue_.take()) {
        *twin = leaving;
        twin->way.is_twin = true;
        queue_.post(*twin, due_tick(*twin, now_ticks));
        ++counts_.duplicated;
    }
}

void subnet::lose(datagram& lost)
{
    ++counts_.dropped;
    queue_.put(lost);
}

uint64_t subnet::due_tick(datagram& leaving, uint64_t now_ticks)
{
    const uint64_t latency = faults.latency_ticks, most_jitter = faults.jitter_ticks;
    const uint64_t jitter = most_jitter > 0 ? dice_() % (most_jitter + 1) : 0;
    leaving.way.departure = ++departures_;
    leaving.way.is_late = latency > 0;
    leaving.way.is_jittered = jitter > 0;
    leaving.way.is_held_back = chance(faults.reorder_percent);
    return now_ticks + latency + jitter + leaving.way.is_held_back;
}

// When the SA is through with a request that it takes up behind those it has.
uint64_t subnet::served_tick(uint64_t now_ticks)
{
    sa_busy_until_tick_ = std::max(sa_busy_until_tick_, now_ticks) + faults.sa_service_ticks;
    effects_.requests_kept_waiting += sa_busy_until_tick_ > now_ticks;
    return sa_busy_until_tick_;
}

bool subnet::chance(uint32_t percent)
{
    return percent > 0 && dice_() % 100 < percent;
}

} // namespace embedded
