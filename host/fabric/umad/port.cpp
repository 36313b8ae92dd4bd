#include "host/fabric/umad/port.h"

#include <arpa/inet.h>
#include <bit>
#include <thread>

#include "host/fabric/umad/port-files.h"

namespace umad
{

namespace
{

constexpr uint64_t first_look_ticks = 1000;
constexpr uint64_t quiet_ms = 20; // at the end: nothing more is coming
constexpr int most_drained = 4096;
constexpr int looks_before_wait = 4;

// A port is silent towards its SA when so many requests have gone out for so long without any answer. Less would
// take a lost datagram for it, or an SA that is busy for a moment.
constexpr uint32_t unanswered_requests = 3;
constexpr uint64_t unanswered_ticks = 3000;

void count(std::atomic<uint64_t>& counter)
{
    counter.fetch_add(1, std::memory_order_relaxed);
}

sa_mad_v2_t& as_sa_mad(fabric::mad_bytes& mad)
{
    static_assert(sizeof(sa_mad_v2_t) == sizeof(fabric::mad_bytes));
    return reinterpret_cast<sa_mad_v2_t&>(mad);
}

bool is_response(const sa_mad_v2_t& mad)
{
    return mad.hdr.m.r;
}

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

traffic_counts operator+(const traffic_counts& a, const traffic_counts& b)
{
    return {.sent = a.sent + b.sent,
            .refused = a.refused + b.refused,
            .arrived = a.arrived + b.arrived,
            .timed_out = a.timed_out + b.timed_out,
            .too_short = a.too_short + b.too_short,
            .strays = a.strays + b.strays,
            .deletes_completed = a.deletes_completed + b.deletes_completed};
}

void surroundings::show_tap(uint16_t source_lid, const fabric::address& destination, const fabric::mad_bytes& mad)
{
    if (!tap_) return;
    const std::lock_guard lock(tap_mutex_);
    if (fabric::tap* seeing = tap_) seeing->crossed(exec.now(), source_lid, destination, mad);
}

void surroundings::set_tap(fabric::tap* to)
{
    const std::lock_guard lock(tap_mutex_);
    tap_ = to;
}

port::port(surroundings& around, own_records& records, const std::string& hca, int number, port_events events)
    : around_(around), hca_(hca), number_(number), called_(hca + " port " + std::to_string(number)),
      events_(std::move(events)), device_(hca, number), records_(records),
      watch_(number, around.wanted.watch_interval_ticks)
{
}

port::~port()
{
    stopping_ = true;
    device_.wake();
    if (task_) around_.exec.join(*task_);
}

std::string port::open()
{
    const std::string why = device_.open();
    if (!why.empty()) return why;
    const uint64_t deadline = around_.exec.now() + first_look_ticks;
    while (condition_ == port_condition::unknown && around_.exec.now() < deadline) {
        look(around_.exec.now());
        device_.wait(1);
        receive_all();
    }
    return "";
}

void port::start()
{
    task_ = &around_.exec.start(nullptr, called_, [this] { run(); });
}

fabric::port_attributes port::read() const
{
    const std::lock_guard lock(mutex_);
    return known_;
}

bool port::send(const fabric::address& destination, const fabric::mad_bytes& mad)
{
    device::packet leaving;
    leaving.mad() = mad;
    ib_mad_addr_t& to = leaving.address();
    to.qpn = htonl(destination.qpn);
    to.qkey = htonl(destination.q_key);
    to.lid = htons(destination.lid);
    to.sl = destination.sl;
    to.path_bits = destination.path_bits;
    to.pkey_index = destination.p_key_index;

    sa_mad_v2_t& request = as_sa_mad(leaving.mad());
    const bool is_lookup = request.hdr.m.method == MAD_METHOD_GET; // most are, and need nothing else of the port
    if (!is_lookup && records_.leaving(request, read())) count(counts_.completed);
    const uint64_t transaction = from_wire(request.hdr.transact_id);
    if (!is_response(request)) under_way_.begin(transaction);
    around_.show_tap(lid_, destination, leaving.mad());
    if (!device_.send(device::client::sa, leaving)) {
        under_way_.end(transaction);
        count(counts_.refused);
        say_once(said_refused_, "a datagram could not be sent; others may follow it unsaid");
        return false;
    }
    count(counts_.sent);
    if (sent_since_answer_ == 0) waiting_since_tick_ = around_.exec.now();
    ++sent_since_answer_;
    return true;
}

void port::run()
{
    while (!stopping_) {
        const uint64_t now = around_.exec.now();
        look(now);
        watch_sa(now);
        const uint64_t due = watch_.next_due();
        device_.wait(due > now ? due - now : 0);
        receive_while_busy(due);
    }
    drain();
}

// Where one answer comes in, more are likely to follow: to look again costs less than to sleep and to be woken.
void port::receive_while_busy(uint64_t until)
{
    int idle = 0;
    do {
        idle = receive_all() ? 0 : idle + 1;
        if (idle > 0) std::this_thread::yield();
    } while (idle < looks_before_wait && !stopping_ && around_.exec.now() < until);
}

// A program under ibsim that ends while datagrams are on their way to it may hang in the simulator's exit handler.
void port::drain()
{
    device::packet ignored;
    for (int i = 0; i < most_drained && device_.is_open(); ++i) {
        if (device_.receive(ignored) != device::outcome::nothing) continue;
        device_.wait(quiet_ms);
        if (device_.receive(ignored) == device::outcome::nothing) break;
    }
    device_.close();
}

bool port::receive_all()
{
    constexpr int most_at_a_time = 64; // so that the watch has its turn
    device::packet arrived;
    for (int i = 0; i < most_at_a_time && device_.is_open(); ++i) {
        switch (device_.receive(arrived)) {
        case device::outcome::nothing:
            return i > 0;
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
    }
    return device_.is_open();
}

void port::take(device::packet& arrived)
{
    if (arrived.to == device::client::self) {
        if (const auto told = watch_.answered(arrived.mad(), around_.exec.now())) learn(*told, condition_of(*told));
        return;
    }
    sa_mad_v2_t& answer = as_sa_mad(arrived.mad());
    if (!is_long_enough(answer, arrived.length)) {
        count(counts_.too_short);
        return say_once(said_short_, "an answer is shorter than a record and is ignored, as others like it will be");
    }
    const auto transaction = is_response(answer) ? under_way_.end(from_wire(answer.hdr.transact_id)) : std::nullopt;
    if (!transaction) {
        count(counts_.strays);
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
    count(counts_.arrived);
    sent_since_answer_ = 0;
    if (const std::string remark = remarks_.on(as_sa_mad(arrived.mad())); !remark.empty()) say(remark);
    events_.arrived(far, arrived.mad());
}

// What comes back is over. Nobody is told: whoever waits for the answer has a time-out of his own.
void port::take_returned(device::packet& arrived)
{
    if (arrived.to == device::client::self) return;
    count(counts_.timed_out);
    under_way_.end(from_wire(as_sa_mad(arrived.mad()).hdr.transact_id));
}

void port::look(uint64_t now)
{
    if (now < watch_.next_due()) return;
    if (!device_.is_open() && !device_.open().empty()) return watch_.postpone(now);
    if (!watch_.has_ever_answered() && (watch_.is_silent() || !device_.has_self_client())) reads_files_ = true;
    if (reads_files_) {
        watch_.postpone(now);
        if (const auto told = attributes_in_files(hca_, number_)) return learn(*told, condition_of(*told));
        return lose_device();
    }
    if (watch_.is_silent()) {
        watch_.postpone(now);
        return learn_down(port_condition::silent);
    }
    if (const auto question = watch_.question_due(now)) ask(*question);
}

void port::ask(const fabric::mad_bytes& question)
{
    device::packet leaving;
    leaving.mad() = question;
    leaving.address().lid = 0xFFFF;              // permissive: this port, whatever its LID
    device_.send(device::client::self, leaving); // one that fails is as good as unanswered
}

void port::learn(const fabric::port_attributes& now, port_condition condition)
{
    std::vector<fabric::port_change> changes;
    {
        const std::lock_guard lock(mutex_);
        changes = changes_between(known_, now);
        known_ = now;
        lid_ = now.lid;
    }
    condition_ = condition;
    if (std::string text = text_of(condition, now); text != said_state_) {
        say(text);
        said_state_ = std::move(text);
    }
    for (const fabric::port_change change : changes) events_.changed(change, now.sm_lid);
}

void port::learn_down(port_condition condition)
{
    fabric::port_attributes last = read();
    last.state = fabric::link_state::down;
    learn(last, condition);
}

void port::lose_device()
{
    device_.close();
    reads_files_ = false;
    watch_.postpone(around_.exec.now());
    learn_down(port_condition::lost);
}

void port::watch_sa(uint64_t now)
{
    const uint64_t since = waiting_since_tick_;
    const bool is_silent = sent_since_answer_ >= unanswered_requests && now >= since && now - since >= unanswered_ticks;
    if (is_silent == sa_is_silent_) return;
    sa_is_silent_ = is_silent;
    say(is_silent ? "the SA at LID " + std::to_string(read().sm_lid) +
                        " answers no request: it may be busy or starting; requests are still sent"
                  : "the SA answers again");
}

void port::say(const std::string& text) const
{
    around_.say(called_ + ": " + text);
}

void port::say_once(std::atomic<bool>& said, const char* text) const
{
    if (!said.exchange(true)) say(text);
}

traffic_counts port::counts() const
{
    return {.sent = counts_.sent,
            .refused = counts_.refused,
            .arrived = counts_.arrived,
            .timed_out = counts_.timed_out,
            .too_short = counts_.too_short,
            .strays = counts_.strays,
            .deletes_completed = counts_.completed};
}

} // namespace umad
