// The events of one HCA on their way to those who subscribed: a queue, and one task that may sleep and makes one
// callback at a time. A storm keeps the last events of a port only: what it came to in the end is never lost.
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

    // A subscription that stands is a hard error.
    ~hca_events();

    fabric::hca& hca() const { return hca_; }

    // One subscription for each handle; false when there is one. A link-up follows for every port that is active,
    // unless the fabric tells it meanwhile. May sleep.
    bool subscribe(kq_hca_h_t handle, kq_async_event_fn_t callback);

    // False: there is no such subscription. May sleep; a hard error when the callback itself does this.
    bool unsubscribe(kq_hca_h_t handle, kq_async_event_fn_t callback);
    bool is_subscribed(kq_hca_h_t handle) const;

    // True if a subscription calls into that module.
    bool calls(const kernel::module_code& module) const;

    void mad_arrived(int, const fabric::address&, const fabric::mad_bytes&) override {}
    void port_changed(int port, fabric::port_change change, uint16_t new_sm_lid) override;

  private:
    struct port_progress {
        bool link_heard = false;               // the fabric has told of the link since the subscription
        uint64_t announced_tick = exec::never; // when the subscription told of the link itself
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

    // With mutex_ held.
    subscription* find(kq_hca_h_t handle);
    bool repeats_announcement(const subscription& of, int port) const;
    void queue(const event& latest);

    void announce_active_ports(kq_hca_h_t handle);
    bool callback_runs(kq_hca_h_t handle) const;

    // The task.
    void run();
    bool deliver_next();

    kernel::machine& home_;
    fabric::hca& hca_;
    hca_hub& hub_;
    wait_queue_head_t callback_ended_;
    mutable std::mutex mutex_; // guards the rest, but for the task
    std::list<subscription> subscriptions_;
    std::deque<event> queue_;
    kq_hca_h_t running_ = nullptr; // whose callback is at work
    service_task task_;
};

} // namespace stack
