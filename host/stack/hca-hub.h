// Lets several listeners share an HCA. An HCA accepts only one listener (fabric::hca::listen), but verbs and GSI both
// need its events. Each HCA of a machine therefore has a hub. The hub is the listener of the HCA while at least one
// listener is attached to the hub, and passes every event to all of them.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include <verbs.h>

#include "host/kernel/machine.h"
#include "kernel/sync.h"

namespace stack
{

class hca_hub final : public fabric::listener
{
  public:
    explicit hca_hub(fabric::hca& adapter);

    // Adds a listener. The hub then calls the listener for every event, and is locked during the call. The listener
    // must not sleep and must not call the hub. It may call send() of the HCA, but not read_port(), poll() or listen().
    // Each attach() needs its own detach(). May sleep.
    void attach(fabric::listener& listener);

    // Undoes one attach(). After as many detach() calls as attach() calls, the hub does not call `listener` any more.
    // Ends the process (exec::panic) if the listener is not attached. May sleep.
    void detach(fabric::listener& listener);

    void mad_arrived(int port, const fabric::address& source, const fabric::mad_bytes& mad) override;
    void may_complete(bool again) override;
    void port_changed(int port, fabric::port_change change, uint16_t new_sm_lid) override;

  private:
    struct attached_listener {
        fabric::listener* listener;
        int attach_count;
    };
    fabric::hca& adapter_;
    // attach() and detach() hold this semaphore until hca::listen() has returned. Otherwise the listen() calls of two
    // tasks could come in the wrong order.
    semaphore change_semaphore_;
    std::mutex mutex_; // guards listeners_; held while a listener is called
    std::vector<attached_listener> listeners_;
};

// The hubs of a machine.
class hca_hubs final : public kernel::service
{
  public:
    explicit hca_hubs(kernel::machine&) {}

    // Returns the hub of an HCA. The first call creates it. This service owns the hub. Any context.
    hca_hub& hub_of(fabric::hca& adapter);

  private:
    std::mutex mutex_; // guards hubs_
    std::map<fabric::hca*, std::unique_ptr<hca_hub>> hubs_;
};

// Returns the HCA's name as modules see it: its first 99 bytes, NUL-terminated.
kq_hca_name name_for_modules(const fabric::hca& adapter);

// Returns the machine's HCA whose name_for_modules() is this name, or null.
fabric::hca* find_hca(const kernel::machine& home, const char* name_for_modules);

} // namespace stack
