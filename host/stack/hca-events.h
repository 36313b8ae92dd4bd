// Delivers the events of one HCA to its subscribers through a queue. One task makes one callback at a time. A callback
// may sleep. If too many events come, the oldest ones of a port are dropped, but never the last one.
#pragma once

#include <deque>
#include <list>
#include <mutex>

#include "host/stack/hca-hub.h"
#include "host/stack/service-task.h"

namespace stack
{

class hca_events final : public fabric::listener
{
  public:
    hca_events(kernel::machine& home, fabric::hca& adapter);

    // A hard error if a subscription has not ended.
    ~hca_events();

    fabric::hca& hca() const { return hca_; }

    // Subscribes a handle. Returns false if it already has a subscription. The callback then gets a link-up for every
    // active port, unless the fabric reports one at the same time. May sleep.
    bool subscribe(kq_hca_h_t handle, kq_async_event_fn_t callback);

    // Ends a subscription. After the return, its callback does not run. Returns false if there is no such subscription.
    // May sleep. It is a hard error if a callback ends its own subscription.
    bool unsubscribe(kq_hca_h_t handle, kq_async_event_fn_t callback);
    bool is_subscribed(kq_hca_h_t handle) const;

    // Returns true if the callback of a subscription is in that module.
    bool calls(const kernel::module_code& module) const;

    void mad_arrived(int, const fabric::address&, const fabric::mad_bytes&) override {}
    void port_changed(int port, fabric::port_change change, uint16_t new_sm_lid) override;

  private:
    struct port_progress {
        bool has_link_report = false;          // the fabric has reported the link since the subscription
        uint64_t announced_tick = exec::never; // when subscribe() announced that the link is up, or `never`
    };
    struct subscription {
        kq_hca_h_t handle;
        kq_async_event_fn_t callback;
        std::vector<port_progress> ports; // port 1 first
    };
    struct event {
        kq_hca_h_t handle;
        int port;
        fabric::port_change change;
        uint16_t sm_lid;
        bool is_announcement;
    };

    // The caller holds mutex_.
    subscription* find(kq_hca_h_t handle);
    bool repeats_announcement(const subscription& subscriber, int port) const;
    void queue(const event& new_event);

    void announce_active_ports(kq_hca_h_t handle);
    bool callback_runs(kq_hca_h_t handle) const;

    // The work of the task. Returns false if there is no event.
    bool deliver_next();

    kernel::machine& home_;
    fabric::hca& hca_;
    hca_hub& hub_;
    wait_queue_head_t callback_ended_;
    mutable std::mutex mutex_; // guards the members below, except the task
    std::list<subscription> subscriptions_;
    std::deque<event> queue_;
    kq_hca_h_t called_handle_ = nullptr; // the subscriber whose callback runs, or null
    service_task task_;
};

} // namespace stack
