#include "host/fabric/umad/port.h"

#include <arpa/inet.h>

namespace umad
{

namespace
{

constexpr uint64_t first_look_ticks = 1000;

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

port::port(surroundings& around, own_records& records, const std::string& hca, int number, port_events events)
    : around_(around), hca_(hca), number_(number), called_(hca + " port " + std::to_string(number)),
      events_(std::move(events)), device_(hca, number), records_(records),
      watch_(number, around.wanted.watch_interval_ticks)
{
}

port::~port()
{
    stopping_ = true;
    if (!task_) return;
    device_.wake();
    around_.exec.wake(*task_);
    around_.exec.join(*task_);
}

std::string port::open()
{
    const std::string why = device_.open();
    if (!why.empty()) return why;
    const uint64_t deadline = around_.exec.now() + first_look_ticks;
    while (condition_ == port_condition::unknown && around_.exec.now() < deadline) {
        look(around_.exec.now());
        device_.wait(1);
        take_in();
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

    sa_mad_v2_t& request = leaving.sa_mad();
    const bool is_lookup = request.hdr.m.method == MAD_METHOD_GET; // most are, and need nothing else of the port
    if (!is_lookup && records_.leaving(request, read())) ++counts_.completed;
    const uint64_t transaction = from_wire(request.hdr.transact_id);
    if (!request.hdr.m.r) under_way_.begin(transaction);
    around_.show_tap(lid_, destination, leaving.mad());
    if (!device_.send(device::client::sa, leaving)) {
        under_way_.end(transaction);
        ++counts_.refused;
        say_once(said_refused_, "a datagram could not be sent; others may follow it unsaid");
        return false;
    }
    ++counts_.sent;
    if (sent_since_answer_ == 0) waiting_since_tick_ = around_.exec.now();
    ++sent_since_answer_;
    return true;
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
