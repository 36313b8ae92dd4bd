#include "host/stack/hca-events.h"

#include <algorithm>
#include <cassert>

#include "host/kernel/module-image.h"

using fabric::port_change;

namespace stack
{

namespace
{

// The largest number of link changes that wait for one port and one subscriber. SM changes have a separate limit of the
// same size. A new change beyond the limit replaces the oldest one.
constexpr ptrdiff_t queue_limit = 16;

// hca::read_port() can show an active link shortly before the fabric reports the link-up. If subscribe() is called in
// between, it announces the link-up itself. The fabric's report then follows within this time, and is ignored.
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
    default:
        break;
    }
    return kq_async_r_port_sm_change;
}

} // namespace

hca_events::hca_events(kernel::machine& home, fabric::hca& adapter)
    : home_(home), hca_(adapter), hub_(home.get<hca_hubs>().hub_of(adapter)), spread_(home.get<link_up_spread>()),
      watch_(home.get<event_watch>()), task_(home, adapter.name() + " events")
{
    init_waitqueue_head_named(&callback_ended_, "the end of an event callback");
    task_.start([this] { return deliver_next(); }, "events");
}

hca_events::~hca_events()
{
    if (!subscriptions_.empty())
        exec::panic("machine %s is destroyed while %s is subscribed to", home_.name().c_str(), hca_.name().c_str());
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
        subscription* subscriber = find(handle);
        if (!subscriber) return;
        port_progress& progress = subscriber->ports[port - 1];
        if (progress.has_link_report) continue; // the subscriber learns the state of the link from the fabric's reports
        progress.announced_tick = home_.exec().now();
        queue({handle, port, port_change::link_up, 0, port_change::link_up, true});
    }
}

bool hca_events::unsubscribe(kq_hca_h_t handle, kq_async_event_fn_t callback)
{
    {
        const std::lock_guard lock(mutex_);
        const subscription* subscriber = find(handle);
        if (!subscriber || subscriber->callback != callback) return false;
        if (called_handle_ == handle && task_.is_current())
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
    return called_handle_ == handle;
}

hca_events::subscription* hca_events::find(kq_hca_h_t handle)
{
    const auto position = std::ranges::find(subscriptions_, handle, &subscription::handle);
    return position != subscriptions_.end() ? &*position : nullptr;
}

void hca_events::port_changed(int port, port_change change, uint16_t new_sm_lid)
{
    assert(port >= 1 && port <= hca_.port_count());
    const std::lock_guard lock(mutex_);
    for (subscription& each : subscriptions_) {
        if (is_link_change(change)) {
            const bool is_repeated = change == port_change::link_up && repeats_announcement(each, port);
            each.ports[port - 1] = {.has_link_report = true};
            if (is_repeated) continue;
        }
        queue_change(each.handle, port, change, new_sm_lid);
    }
}

// Queues a change of the fabric for one subscriber. A host registers again after a link-down and a link-up. Therefore
// the change `reregister` becomes these two events. With a spread (see link_up_spread), both events wait until the same
// random tick. Until that tick the host keeps its port. An SM change tells the host the new LID of the SM at once. Each
// link change replaces the link changes of the port that still wait for their tick.
void hca_events::queue_change(kq_hca_h_t handle, int port, port_change change, uint16_t sm_lid)
{
    if (change == port_change::sm_change) return queue({handle, port, change, sm_lid, change});
    std::erase_if(queue_, [&](const event& each) {
        return each.handle == handle && each.port == port && each.due_tick > home_.exec().now();
    });
    if (change == port_change::link_down) return queue({handle, port, change, sm_lid, change});
    const uint64_t due_tick = link_up_tick();
    if (change == port_change::reregister) {
        if (due_tick > 0) queue({handle, port, port_change::sm_change, sm_lid, change});
        queue({handle, port, port_change::link_down, sm_lid, change, false, due_tick});
    }
    queue({handle, port, port_change::link_up, sm_lid, change, false, due_tick});
}

// Returns the tick at which a link-up that the fabric reports now is due: a random tick within the spread. Without a
// spread, returns 0 (due at once).
uint64_t hca_events::link_up_tick()
{
    const uint64_t spread_ticks = spread_.ticks;
    if (spread_ticks == 0) return 0;
    uint32_t random;
    home_.random.fill(&random, sizeof random);
    return home_.exec().now() + random % (spread_ticks + 1);
}

// Returns true if subscribe() has already announced the link-up that the fabric reports now.
bool hca_events::repeats_announcement(const subscription& subscriber, int port) const
{
    const uint64_t announced_tick = subscriber.ports[port - 1].announced_tick;
    if (announced_tick == exec::never) return false;
    if (home_.exec().now() - announced_tick <= same_moment_ticks) return true;
    return std::ranges::any_of(queue_, [&](const event& each) {
        return each.handle == subscriber.handle && each.port == port && each.is_announcement;
    });
}

void hca_events::queue(const event& new_event)
{
    const auto is_alike = [&](const event& each) {
        return each.handle == new_event.handle && each.port == new_event.port &&
               is_link_change(each.change) == is_link_change(new_event.change);
    };
    if (std::ranges::count_if(queue_, is_alike) >= queue_limit) queue_.erase(std::ranges::find_if(queue_, is_alike));
    queue_.push_back(new_event);
    task_.ring();
}

std::optional<uint64_t> hca_events::deliver_next()
{
    kq_async_event_fn_t callback;
    kq_event_record_st record{};
    event next{};
    {
        const std::lock_guard lock(mutex_);
        const uint64_t now_ticks = home_.exec().now();
        const auto position =
            std::ranges::find_if(queue_, [&](const event& each) { return each.due_tick <= now_ticks; });
        if (position == queue_.end()) {
            const auto earliest = std::ranges::min_element(queue_, {}, &event::due_tick);
            return earliest == queue_.end() ? exec::never : earliest->due_tick;
        }
        next = *position;
        queue_.erase(position);
        const subscription* subscriber = find(next.handle);
        assert(subscriber); // unsubscribe() also removes the queued events
        called_handle_ = next.handle;
        callback = subscriber->callback;
        record.event_type = event_type_of(next.change);
        record.hca_app_h = next.handle;
        record.port_num = static_cast<uint8_t>(next.port);
        record.type.data = next.sm_lid;
    }
    watch_.show({home_.exec().now(), hca_, next.port, next.change, next.cause, next.is_announcement});
    callback(record);
    {
        const std::lock_guard lock(mutex_);
        called_handle_ = nullptr;
    }
    wake_up_interruptible(&callback_ended_);
    return std::nullopt;
}

} // namespace stack
