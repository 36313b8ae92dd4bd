// The ports through which IBAT asks the SA for paths. They are the first two ports of the first HCA, or its only port.
// The module that asks the SA for addresses registers the SA's class on the same ports. IBAT joins the class as a
// second client, with datagrams of its own. IBAT also subscribes to the events of the HCA.
#pragma once

#include "gsi.h"
#include "host/peers/ibat/path-mad.h"
#include "verbs.h"

namespace ibat
{

class sa_ports
{
  public:
    // The callbacks for answers of the SA and for events of the HCA.
    struct callbacks {
        gsi_completion_fn_t receive_callback;
        void* context; // argument of receive_callback
        kq_async_event_fn_t event;
    };

    // Opens the HCA and joins the class on these ports. Returns false if there is no HCA, or if verbs or GSI refuse a
    // call; nothing stays open then. A callback may come before the return. May sleep.
    bool open(const callbacks& callbacks);

    // Closes the HCA. When close() has returned, no callback runs any more. May sleep.
    void close();

    int32_t count() const { return count_; }

    // Reads the present attributes of a port. Returns false if it is not one of these ports, if its link is not active,
    // or if verbs refuses a call. May sleep.
    bool read(uint32_t number, source_port* port) const;

    // Sends a request through `port` to the SA of its subnet. Returns false if it was not sent. Any context.
    bool send(const source_port& port, const sa_mad_v2_t& request) const;

  private:
    static constexpr int32_t most_ports = 2; // the module that asks for addresses does not use more ports, either

    bool join_ports(const kq_hca_name& hca, const callbacks& callbacks);
    void leave_ports();

    kq_hca_h_t hca_;
    kq_async_event_fn_t event_;
    gsi_dtgrm_pool_handle_t pool_;
    int32_t count_;
    gsi_class_handle_t classes_[most_ports]; // handles of the ports 1 to count_
};

} // namespace ibat
