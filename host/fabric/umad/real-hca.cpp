#include "host/fabric/umad/real-hca.h"

#include <cassert>

namespace umad
{

namespace
{

// If libibverbs reports the events of an HCA, the interval between two queries of a port is longer by this factor.
constexpr uint64_t slow_watch_factor = 50;

} // namespace

real_hca::real_hca(fabric_context& context, const hca_listing& hca)
    : context_(context), name_(hca.name), p_keys_(context.options.sa_delete_p_key)
{
    for (const port_listing& each : hca.ports) {
        const int number = each.number;
        is_infiniband_.push_back(is_infiniband(each));
        port_events events{
            .mad_arrived =
                [this, number](const fabric::address& source, const fabric::mad_bytes& mad) {
                    call_listener([&](fabric::listener& listener) { listener.mad_arrived(number, source, mad); });
                },
            .may_complete =
                [this](bool again) {
                    call_listener([&](fabric::listener& listener) { listener.may_complete(again); });
                },
            .port_changed =
                [this, number](fabric::port_change change, uint16_t sm_lid) {
                    call_listener([&](fabric::listener& listener) { listener.port_changed(number, change, sm_lid); });
                },
        };
        ports_.push_back(std::make_unique<port>(context, p_keys_, name_, number, std::move(events)));
    }
}

ats::result<> real_hca::open()
{
    for (size_t i = 0; i < ports_.size(); ++i) {
        if (!is_infiniband_[i]) {
            context_.report({.hca = name_,
                             .port = static_cast<int>(i) + 1,
                             .text = name_ + " port " + std::to_string(i + 1) +
                                     ": not InfiniBand, or without a management device: not used"});
            continue;
        }
        if (const auto result = ports_[i]->open(); !result) return result;
    }
    for (size_t i = 0; i < ports_.size(); ++i)
        if (is_infiniband_[i]) ports_[i]->start();
    events_ = device_events::open(context_.exec, name_, [this](const device_event& event) { take_event(event); });
    const uint64_t interval = context_.options.watch_interval_ticks;
    for (const auto& each : ports_)
        if (events_) each->set_watch_interval(slow_watch_factor * interval);
    return {};
}

std::vector<fabric::fabric_task> real_hca::tasks()
{
    std::vector<fabric::fabric_task> list;
    for (size_t i = 0; i < ports_.size(); ++i)
        if (is_infiniband_[i]) list.push_back(ports_[i]->watched_task());
    if (events_) list.push_back(events_->watched_task());
    return list;
}

void real_hca::take_event(const device_event& event)
{
    const bool has_ended = event.kind == device_event_kind::ended;
    if (has_ended)
        context_.report(
            {.hca = name_, .text = name_ + ": the device reports no further events; its ports are asked more often"});
    for (int number = 1; number <= port_count(); ++number) {
        if (event.port != 0 && event.port != number) continue;
        port& port = *ports_[static_cast<size_t>(number - 1)];
        if (has_ended) port.set_watch_interval(context_.options.watch_interval_ticks);
        port.look_now(event.kind == device_event_kind::reregister);
    }
}

template <class call_t>
void real_hca::call_listener(const call_t& call)
{
    const std::lock_guard lock(listener_mutex_);
    if (listener_) call(*listener_);
}

void real_hca::listen(fabric::listener* listener)
{
    const std::lock_guard lock(listener_mutex_);
    listener_ = listener;
}

fabric::port_attributes real_hca::read_port(int port)
{
    assert(port >= 1 && port <= port_count());
    return ports_[static_cast<size_t>(port - 1)]->read();
}

bool real_hca::send(int port, const fabric::address& destination, const fabric::mad_bytes& mad)
{
    return port >= 1 && port <= port_count() && ports_[static_cast<size_t>(port - 1)]->send(destination, mad);
}

bool real_hca::poll()
{
    bool has_received = false;
    for (const auto& each : ports_) has_received |= each->poll();
    return has_received;
}

datagram_counts real_hca::counts() const
{
    datagram_counts sum;
    for (const auto& each : ports_) sum = sum + each->counts();
    return sum;
}

} // namespace umad
