// The ports through which IBAT asks the SA: those of the first HCA, as of the module that finds its addresses. IBAT
// joins the SA's class there beside the module, has datagrams of its own and follows the events of the HCA.
#pragma once

#include "gsi.h"
#include "host/peers/ibat/path-mad.h"
#include "verbs.h"

namespace ibat
{

class sa_ports
{
  public:
    // IBAT takes datagrams of the SA and events of the HCA by these calls.
    struct callbacks {
        gsi_completion_fn_t received; // gets `context`
        void* context;
        kq_async_event_fn_t event;
    };

    // False: something was refused; then nothing is held. The callbacks may come before the call returns. May sleep.
    bool open(const callbacks& callbacks);

    // Afterwards no callback runs or will run. May sleep.
    void close();

    int32_t count() const { return count_; }

    // The port's attributes now; false: it is not active, or there is no such port. May sleep.
    bool read(uint32_t number, source_port* port) const;

    // Sends a request to the port's SA. False: it was not sent. Any context.
    bool send(const source_port& port, const sa_mad_v2_t& request) const;

  private:
    static constexpr int32_t most_ports = 2; // as many as the module uses

    bool join_ports(const kq_hca_name& hca, const callbacks& callbacks);
    void leave_ports();

    kq_hca_h_t hca_;
    kq_async_event_fn_t event_;
    gsi_dtgrm_pool_handle_t pool_;
    int32_t count_;
    gsi_class_handle_t classes_[most_ports]; // null: not joined
};

} // namespace ibat
