// The asynchronous events of an HCA (IBA 11.6.3), through libibverbs. They report at once a change that polling would
// find later. libibverbs does not know every HCA that libibumad knows, for example those of ibsim.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "host/exec/executor.h"
#include "host/fabric/fabric-task.h"

namespace umad
{

enum class device_event_kind {
    port_changed, // its state, LID, SM, P_Keys or GIDs
    reregister,   // the SM asks hosts to register again (ClientReregister, IBA 14.2.5.6)
    ended,        // for all ports: the device has failed, and no further event comes
};

struct device_event {
    device_event_kind kind;
    int port = 0; // 0 means all ports
};

class device_events
{
  public:
    // Passes the events to `take` in a task of its own, until it is destroyed. Returns null if libibverbs does not know
    // the HCA, if the HCA cannot be opened, or in a build without libibverbs. Throws a shortage if the task cannot be
    // created.
    static std::unique_ptr<device_events> open(exec::executor& exec, const std::string& hca,
                                               std::function<void(const device_event&)> take);
    virtual ~device_events() = default;

    // The task that receives the events, as a watchdog sees it.
    virtual fabric::fabric_task watched_task() = 0;
};

} // namespace umad
