// An HCA tells one listener what happens at it; verbs and GSI both need to know. Each HCA of a machine has a hub that
// listens as long as anybody is attached, and tells all of them.
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

    // Tells `to` from now on. It is called with the hub locked: it does not sleep, and calls neither the hub nor
    // the HCA, but for its send(). Attaching twice needs two detaches. May sleep.
    void attach(fabric::listener& to);

    // When this returns after the last attach is taken back, `from` is not running and is not called again. May sleep.
    void detach(fabric::listener& from);

    void mad_arrived(int port, const fabric::address& source, const fabric::mad_bytes& mad) override;
    void may_complete(bool again) override;
    void port_changed(int port, fabric::port_change change, uint16_t new_sm_lid) override;

  private:
    struct attached {
        fabric::listener* listener;
        int times;
    };
    fabric::hca& adapter_;
    semaphore changing_; // held over listen(), so that its calls come in the order of the changes
    std::mutex mutex_;   // guards attached_; held over the listeners
    std::vector<attached> attached_;
};

class hca_hubs final : public kernel::service
{
  public:
    explicit hca_hubs(kernel::machine&) {}
    hca_hub& of(fabric::hca& adapter);

  private:
    std::mutex mutex_;
    std::map<fabric::hca*, std::unique_ptr<hca_hub>> hubs_;
};

// What the HCA is called in the stack: names beyond 99 bytes are cut.
kq_hca_name name_in_stack(const fabric::hca& adapter);

// The machine's HCA of that name, or null.
fabric::hca* find_hca(const kernel::machine& home, const char* name_in_stack);

} // namespace stack
