// Delivers the events of one HCA to its subscribers through a queue. One task makes one callback at a time. A callback
// may sleep. If too many events come, the oldest ones of a port are dropped, but never the last one.
//
// When a subnet manager starts, all hosts of a fabric would register in the same second. With a spread, each link-up
// waits for a random part of that time. A link-down is never late: it replaces a link-up that still waits.
#pragma once

#include <atomic>
#include <deque>
#include <list>
#include <mutex>
#include <optional>

#include "host/stack/hca-hub.h"
#include "host/stack/service-task.h"

namespace stack
{

// The spread of a machine's link-ups, in ticks. Any thread may change it; it applies to later events.
struct link_up_spread final : kernel::service {
    explicit link_up_spread(kernel::machine&) {}
    std::atomic<uint64_t> ticks{0};
};

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
        uint64_t due_tick = 0; // it is not delivered earlier
    };

    // The caller holds mutex_.
    subscription* find(kq_hca_h_t handle);
    bool repeats_announcement(const subscription& subscriber, int port) const;
    void queue(const event& new_event);
    void queue_change(kq_hca_h_t handle, int port, fabric::port_change change, uint16_t sm_lid);
    uint64_t link_up_tick();

    void announce_active_ports(kq_hca_h_t handle);
    bool callback_runs(kq_hca_h_t handle) const;

    // The work of the task: delivers an event. Without one that is due, returns the tick until which to sleep.
    std::optional<uint64_t> deliver_next();

    kernel::machine& home_;
    fabric::hca& hca_;
    hca_hub& hub_;
    const link_up_spread& spread_;
    wait_queue_head_t callback_ended_;
    mutable std::mutex mutex_; // guards the members below, except the task
    std::list<subscription> subscriptions_;
    std::deque<event> queue_;
    kq_hca_h_t called_handle_ = nullptr; // the subscriber whose callback runs, or null
    service_task task_;
};

} // namespace stack
