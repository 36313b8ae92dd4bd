// An HCA has one listener, but verbs and GSI both need its events. Therefore each HCA of a machine has a hub. The hub
// listens to the HCA while a listener is attached, and passes every event to all attached listeners.
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

    // Calls `listener` from now on, with the hub locked. The listener must not sleep, and must not call the hub or the
    // HCA, except for send(). Each attach() needs its own detach(). May sleep.
    void attach(fabric::listener& listener);

    // Undoes one attach(). After the last one, `listener` is not called any more. A detach without an attach is a hard
    // error. May sleep.
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
    semaphore change_semaphore_; // held during hca::listen(), so these calls come in the order of the changes
    std::mutex mutex_;           // guards listeners_; held while a listener is called
    std::vector<attached_listener> listeners_;
};

// The hubs of a machine.
class hca_hubs final : public kernel::service
{
  public:
    explicit hca_hubs(kernel::machine&) {}

    // Returns the hub of an HCA. The first call creates it; the service owns it. Any context.
    hca_hub& hub_of(fabric::hca& adapter);

  private:
    std::mutex mutex_;
    std::map<fabric::hca*, std::unique_ptr<hca_hub>> hubs_;
};

// The HCA's name in the stack: at most 99 bytes.
kq_hca_name name_in_stack(const fabric::hca& adapter);

// The machine's HCA with that name, or null.
fabric::hca* find_hca(const kernel::machine& home, const char* name_in_stack);

} // namespace stack
