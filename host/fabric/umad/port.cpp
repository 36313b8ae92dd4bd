#include "host/fabric/umad/port.h"

#include <arpa/inet.h>
#include <cassert>

namespace umad
{

namespace
{

constexpr uint64_t first_state_ticks = 1000; // maximum time for which open() waits for the port's attributes

} // namespace

datagram_counts operator+(const datagram_counts& a, const datagram_counts& b)
{
    return {.sent = a.sent + b.sent,
            .refused = a.refused + b.refused,
            .arrived = a.arrived + b.arrived,
            .timed_out = a.timed_out + b.timed_out,
            .too_short = a.too_short + b.too_short,
            .strays = a.strays + b.strays,
            .deletes_completed = a.deletes_completed + b.deletes_completed};
}

port::port(fabric_context& context, registered_p_keys& p_keys, const std::string& hca, int number, port_events events)
    : context_(context), hca_(hca), number_(number), name_(hca + " port " + std::to_string(number)),
      events_(std::move(events)), device_(hca, number), p_keys_(p_keys),
      watch_(number, context.options.watch_interval_ticks)
{
}

port::~port()
{
    is_stopping_ = true;
    if (!task_) return;
    device_.wake();
    context_.exec.wake(*task_);
    context_.exec.join(*task_);
}

ats::result<> port::open()
{
    assert(!task_);
    if (const auto result = device_.open(); !result) return result;
    const uint64_t deadline = context_.exec.now() + first_state_ticks;
    while (condition_ == port_condition::unknown && context_.exec.now() < deadline) {
        update_state(context_.exec.now());
        device_.wait(1);
        receive_next();
    }
    return {};
}

void port::start()
{
    task_ = &context_.exec.start(nullptr, name_, [this] { run(); });
}

// The calling task sends the first question itself, because the port's task may be asleep or waiting for a datagram.
// The port's task receives the answer.
void port::look_now(bool must_register)
{
    if (must_register) must_register_ = true;
    {
        const std::lock_guard lock(receive_mutex_);
        const uint64_t now = context_.exec.now();
        watch_.hurry(now, must_register ? self_query::look::brief : self_query::look::whole);
        if (device_.is_open() && !reads_files_) ask_next(now);
        check_due_ = watch_.next_due();
    }
    device_.wake();
    receive_in_own_task();
}

// Makes the port's own task receive the next answer. Call this if no other task polls for that answer.
void port::receive_in_own_task()
{
    is_polled_ = false;
    if (task_) context_.exec.wake(*task_);
}

void port::set_watch_interval(uint64_t ticks)
{
    const std::lock_guard lock(receive_mutex_);
    watch_.set_interval(ticks);
}

fabric::port_attributes port::read() const
{
    const std::lock_guard lock(attributes_mutex_);
    return attributes_;
}

fabric::fabric_task port::watched_task()
{
    assert(task_);
    return {.name = name_,
            .wake =
                [this] {
                    device_.wake();
                    context_.exec.wake(*task_);
                },
            .rounds = [this] { return rounds_.load(std::memory_order_relaxed); }};
}

bool port::send(const fabric::address& destination, const fabric::mad_bytes& mad)
{
    device::packet packet;
    packet.mad() = mad;
    ib_mad_addr_t& umad_address = packet.address();
    umad_address.qpn = htonl(destination.qpn);
    umad_address.qkey = htonl(destination.q_key);
    umad_address.lid = htons(destination.lid);
    umad_address.sl = destination.sl;
    umad_address.path_bits = destination.path_bits;
    umad_address.pkey_index = destination.p_key_index;

    sa_mad_v2_t& request = packet.sa_mad();
    const bool is_lookup = request.hdr.m.method == MAD_METHOD_GET; // most requests are lookups; they need no P_Key
    if (!is_lookup && p_keys_.complete(request, read())) ++counts_.deletes_completed;
    const uint64_t transaction = from_wire(request.hdr.transact_id);
    if (!request.hdr.m.r) transactions_.begin(transaction);
    context_.show_tap(lid_, destination, packet.mad());
    if (!device_.send(device::client::sa, packet)) {
        transactions_.end(transaction);
        ++counts_.refused;
        report_once(is_refusal_reported_, "a datagram could not be sent; further ones are not reported");
        return false;
    }
    ++counts_.sent;
    if (unanswered_requests_ == 0) first_unanswered_tick_ = context_.exec.now();
    ++unanswered_requests_;
    if (request.hdr.m.method == MAD_METHOD_SET) receive_in_own_task(); // no task polls for the answer to a Set
    return true;
}

void port::report(const std::string& text) const
{
    context_.report({.hca = hca_, .port = number_, .text = name_ + ": " + text});
}

void port::report_once(std::atomic<bool>& is_reported, const char* text) const
{
    if (!is_reported.exchange(true)) report(text);
}

datagram_counts port::counts() const
{
    return {.sent = counts_.sent,
            .refused = counts_.refused,
            .arrived = counts_.arrived,
            .timed_out = counts_.timed_out,
            .too_short = counts_.too_short,
            .strays = counts_.strays,
            .deletes_completed = counts_.deletes_completed};
}

} // namespace umad
