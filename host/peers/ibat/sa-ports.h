// The ports through which IBAT asks the SA. They are ports of the first HCA, which the address module uses as well.
// IBAT joins the SA's class on these ports beside that module. It has its own datagrams and follows the events of the
// HCA.
#pragma once

#include "gsi.h"
#include "host/peers/ibat/path-mad.h"
#include "verbs.h"

namespace ibat
{

class sa_ports
{
  public:
    // IBAT's callbacks for datagrams of the SA and events of the HCA.
    struct callbacks {
        gsi_completion_fn_t receive_callback; // gets `context`
        void* context;
        kq_async_event_fn_t event;
    };

    // Returns false if a call was refused; nothing is held then. The callbacks may come before the call returns. May
    // sleep.
    bool open(const callbacks& callbacks);

    // After the return, no callback runs. May sleep.
    void close();

    int32_t count() const { return count_; }

    // Reads the port's present attributes. Returns false if it is not active or does not exist. May sleep.
    bool read(uint32_t number, source_port* port) const;

    // Sends a request to the port's SA. Returns false if it was not sent. Any context.
    bool send(const source_port& port, const sa_mad_v2_t& request) const;

  private:
    static constexpr int32_t most_ports = 2; // the same as the module uses

    bool join_ports(const kq_hca_name& hca, const callbacks& callbacks);
    void leave_ports();

    kq_hca_h_t hca_;
    kq_async_event_fn_t event_;
    gsi_dtgrm_pool_handle_t pool_;
    int32_t count_;
    gsi_class_handle_t classes_[most_ports]; // null means not joined
};

} // namespace ibat
