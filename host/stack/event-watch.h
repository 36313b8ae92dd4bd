// Shows a watcher, for example a recorder, the events of HCAs at the moment at which a host handles them.
#pragma once

#include <functional>
#include <mutex>

#include "host/fabric/fabric.h"
#include "host/kernel/machine.h"

namespace stack
{

struct handled_event {
    uint64_t tick;
    const fabric::hca& hca;
    int port;
    fabric::port_change change; // what the subscriber is told; never reregister
    fabric::port_change cause;  // what the fabric has reported; link_up if is_announcement
    bool is_announcement;       // not from the fabric: the link was up before the subscription
};

// The watch of a machine. Any thread may call it.
class event_watch final : public kernel::service
{
  public:
    explicit event_watch(kernel::machine&) {}

    // Sets the watcher, or removes it (null). The watcher is called before each callback of a subscriber, in the same
    // task. It must not sleep or call this object. After set() has returned, the previous watcher is not called any
    // more.
    void set(std::function<void(const handled_event&)> watcher)
    {
        const std::lock_guard lock(mutex_);
        watcher_ = std::move(watcher);
    }

    void show(const handled_event& event)
    {
        const std::lock_guard lock(mutex_);
        if (watcher_) watcher_(event);
    }

  private:
    std::mutex mutex_; // guards the watcher
    std::function<void(const handled_event&)> watcher_;
};

} // namespace stack
