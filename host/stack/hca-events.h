// Delivers the events of one HCA to its subscribers through a queue. One task calls the callbacks, one at a time. A
// callback may sleep. The queue is limited for each port and subscriber: if too many events wait, the oldest one is
// dropped.
//
// When a subnet manager starts, all hosts of a fabric learn of it at once, and would all register in the same second.
// Therefore a machine can have a spread: each link-up that the fabric reports, and each request to register again, then
// waits for a random time up to the spread. A link-down that the fabric reports does not wait. It removes the link-ups
// and requests of the port that still wait.
#pragma once

#include <atomic>
#include <deque>
#include <list>
#include <mutex>
#include <optional>

#include "host/stack/event-watch.h"
#include "host/stack/hca-hub.h"
#include "host/stack/service-task.h"

namespace stack
{

// The spread of a machine, in ticks (1 ms); 0 means no spread. Any thread may change it. The change applies to later
// events.
struct link_up_spread final : kernel::service {
    explicit link_up_spread(kernel::machine&) {}
    std::atomic<uint64_t> ticks{0};
};

class hca_events final : public fabric::listener
{
  public:
    hca_events(kernel::machine& home, fabric::hca& adapter);

    // Ends the process (exec::panic) if a handle is still subscribed.
    ~hca_events();

    fabric::hca& hca() const { return hca_; }

    // Subscribes an open HCA. The callback then gets a link-up for every port that is active, and later all events. If
    // the fabric reports the same link-up at this moment, the callback gets it only once. Returns false, and changes
    // nothing, if the handle is subscribed already. May sleep.
    bool subscribe(kq_hca_h_t handle, kq_async_event_fn_t callback);

    // Ends a subscription. After the return, its callback does not run. Returns false if the handle is not subscribed
    // with this callback. Ends the process (exec::panic) if a callback ends its own subscription. May sleep.
    bool unsubscribe(kq_hca_h_t handle, kq_async_event_fn_t callback);
    bool is_subscribed(kq_hca_h_t handle) const;

    // Returns true if the callback of a subscription is code of that module.
    bool calls(const kernel::module_code& module) const;

    void mad_arrived(int, const fabric::address&, const fabric::mad_bytes&) override {}
    void port_changed(int port, fabric::port_change change, uint16_t new_sm_lid) override;

  private:
    struct port_progress {
        bool has_link_report = false;          // the fabric has reported this port's link since subscribe()
        uint64_t announced_tick = exec::never; // when subscribe() queued a link-up; `never` if not, or after a report
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
        fabric::port_change cause;    // what the fabric has reported; link_up if is_announcement
        bool is_announcement = false; // subscribe() has queued it, not the fabric
        uint64_t due_tick = 0;        // the event is not delivered before this tick
    };

    // The caller holds mutex_.
    subscription* find(kq_hca_h_t handle);
    bool repeats_announcement(const subscription& subscriber, int port) const;
    void queue(const event& new_event);
    void queue_change(kq_hca_h_t handle, int port, fabric::port_change change, uint16_t sm_lid);
    uint64_t link_up_tick();

    void announce_active_ports(kq_hca_h_t handle);
    bool callback_runs(kq_hca_h_t handle) const;

    // The work of the task: delivers one event that is due. If no event is due, returns the tick until which to sleep.
    std::optional<uint64_t> deliver_next();

    kernel::machine& home_;
    fabric::hca& hca_;
    hca_hub& hub_;
    const link_up_spread& spread_;
    event_watch& watch_;
    wait_queue_head_t callback_ended_;
    mutable std::mutex mutex_; // guards the members below, except the task
    std::list<subscription> subscriptions_;
    std::deque<event> queue_;
    kq_hca_h_t called_handle_ = nullptr; // the subscriber whose callback runs, or null
    service_task task_;
};

} // namespace stack
