#include "host/stack/hca-events.h"

#include <algorithm>

#include "host/kernel/module-image.h"

using fabric::port_change;

namespace stack
{

namespace
{

// Of one port, for one subscriber, link changes and SM changes each. Beyond it the oldest one goes.
constexpr ptrdiff_t longest_queue = 16;

// The fabric tells of a change after the port reads it. A subscription that fell in between has told of the link
// already when the fabric does, in the same tick or just behind its end.
constexpr uint64_t same_moment_ticks = 1;

bool is_link_change(port_change change)
{
    return change != port_change::sm_change;
}

kq_async_record_t event_type_of(port_change change)
{
    switch (change) {
    case port_change::link_up:
        return kq_async_r_port_link_up;
    case port_change::link_down:
        return kq_async_r_port_link_down;
    case port_change::sm_change:
        break;
    }
    return kq_async_r_port_sm_change;
}

} // namespace

hca_events::hca_events(kernel::machine& home, fabric::hca& adapter)
    : home_(home), hca_(adapter), hub_(home.get<hca_hubs>().of(adapter)), task_(home, adapter.name() + " events")
{
    init_waitqueue_head_named(&callback_ended_, "the end of an event callback");
    task_.start([this] { run(); });
}

hca_events::~hca_events()
{
    if (!subscriptions_.empty())
        exec::panic("machine %s goes while %s is subscribed to", home_.name().c_str(), hca_.name().c_str());
}

bool hca_events::subscribe(kq_hca_h_t handle, kq_async_event_fn_t callback)
{
    {
        const std::lock_guard lock(mutex_);
        if (find(handle)) return false;
        subscriptions_.push_back({handle, callback, std::vector<port_progress>(hca_.port_count())});
    }
    hub_.attach(*this);
    announce_active_ports(handle);
    return true;
}

void hca_events::announce_active_ports(kq_hca_h_t handle)
{
    for (int port = 1; port <= hca_.port_count(); ++port) {
        if (hca_.read_port(port).state != fabric::link_state::active) continue;
        const std::lock_guard lock(mutex_);
        subscription* to = find(handle);
        if (!to) return;
        port_progress& progress = to->ports[port - 1];
        if (progress.link_heard) continue; // it knows at least as much as the port read
        progress.announced_tick = home_.exec().now();
        queue({handle, port, port_change::link_up, 0, true});
    }
}

bool hca_events::unsubscribe(kq_hca_h_t handle, kq_async_event_fn_t callback)
{
    {
        const std::lock_guard lock(mutex_);
        const subscription* ending = find(handle);
        if (!ending || ending->callback != callback) return false;
        if (running_ == handle && task_.is_current())
            exec::panic("an event callback of %s ends its own subscription", hca_.name().c_str());
        std::erase_if(subscriptions_, [&](const subscription& each) { return each.handle == handle; });
        std::erase_if(queue_, [&](const event& each) { return each.handle == handle; });
    }
    wait_queue_t sleeper;
    prepare_to_wait(&callback_ended_, &sleeper);
    while (callback_runs(handle)) schedule_timeout_uninterruptible(exec::never);
    finish_wait(&callback_ended_, &sleeper);
    hub_.detach(*this);
    return true;
}

bool hca_events::is_subscribed(kq_hca_h_t handle) const
{
    const std::lock_guard lock(mutex_);
    return std::ranges::any_of(subscriptions_, [&](const subscription& each) { return each.handle == handle; });
}

bool hca_events::calls(const kernel::module_code& module) const
{
    const std::lock_guard lock(mutex_);
    return std::ranges::any_of(subscriptions_, [&](const subscription& each) { return module.holds(each.callback); });
}

bool hca_events::callback_runs(kq_hca_h_t handle) const
{
    const std::lock_guard lock(mutex_);
    return running_ == handle;
}

hca_events::subscription* hca_events::find(kq_hca_h_t handle)
{
    const auto found = std::ranges::find(subscriptions_, handle, &subscription::handle);
    return found != subscriptions_.end() ? &*found : nullptr;
}

void hca_events::port_changed(int port, port_change change, uint16_t new_sm_lid)
{
    const std::lock_guard lock(mutex_);
    for (subscription& each : subscriptions_) {
        if (is_link_change(change)) {
            const bool is_repeated = change == port_change::link_up && repeats_announcement(each, port);
            each.ports[port - 1] = {.link_heard = true};
            if (is_repeated) continue;
        }
        queue({each.handle, port, change, new_sm_lid, false});
    }
}

bool hca_events::repeats_announcement(const subscription& of, int port) const
{
    const uint64_t announced = of.ports[port - 1].announced_tick;
    if (announced == exec::never) return false;
    if (home_.exec().now() - announced <= same_moment_ticks) return true;
    return std::ranges::any_of(queue_, [&](const event& each) {
        return each.handle == of.handle && each.port == port && each.is_announcement;
    });
}

void hca_events::queue(const event& latest)
{
    const auto is_outdone = [&](const event& each) {
        return each.handle == latest.handle && each.port == latest.port &&
               is_link_change(each.change) == is_link_change(latest.change);
    };
    if (std::ranges::count_if(queue_, is_outdone) >= longest_queue)
        queue_.erase(std::ranges::find_if(queue_, is_outdone));
    queue_.push_back(latest);
    task_.ring();
}

void hca_events::run()
{
    while (!task_.is_stopping())
        if (!deliver_next()) task_.sleep(exec::never, "events");
}

bool hca_events::deliver_next()
{
    kq_async_event_fn_t callback;
    kq_event_record_st record{};
    {
        const std::lock_guard lock(mutex_);
        if (queue_.empty()) return false;
        const event next = queue_.front();
        queue_.pop_front();
        running_ = next.handle;
        callback = find(next.handle)->callback; // what is queued goes with its subscription
        record.event_type = event_type_of(next.change);
        record.hca_app_h = next.handle;
        record.port_num = static_cast<uint8_t>(next.port);
        record.type.data = next.sm_lid;
    }
    callback(record);
    {
        const std::lock_guard lock(mutex_);
        running_ = nullptr;
    }
    wake_up_interruptible(&callback_ended_);
    return true;
}

} // namespace stack
