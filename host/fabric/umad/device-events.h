// The asynchronous events of an HCA (IBA 11.6.3), through libibverbs. They report a change of a port at once. Without
// them, port_watch finds the change later. libibverbs does not know every HCA that libibumad knows. For example, it
// does not know the HCAs of ibsim.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "host/exec/executor.h"
#include "host/fabric/fabric-task.h"

namespace umad
{

enum class device_event_kind {
    port_changed, // the state, LID, SM, P_Keys or GIDs of the port have changed
    reregister,   // the SM asks hosts to register again (IBA 14.2.5.6, ClientReregister)
    ended,        // for all ports: the device has failed and reports no further event
};

struct device_event {
    device_event_kind kind;
    int port = 0; // 0 means all ports
};

class device_events
{
  public:
    // Starts a task that passes each event to `take`. The destructor ends the task. Returns null if libibverbs does not
    // know the HCA, if the HCA cannot be opened, or in a build without libibverbs. Throws exec::shortage if the task
    // cannot be created.
    static std::unique_ptr<device_events> open(exec::executor& exec, const std::string& hca,
                                               std::function<void(const device_event&)> take);
    virtual ~device_events() = default;

    // The task that receives the events, for a watchdog.
    virtual fabric::fabric_task watched_task() = 0;
};

} // namespace umad
