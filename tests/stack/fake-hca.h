// A fake HCA for tests of verbs and GSI. It stores the MADs that are sent. A test calls arrive() and change() to make
// MADs arrive and ports change.
#pragma once

#include <vector>

#include "host/fabric/fabric.h"
#include "sa-mads.h"
#include "tests/fabric/requests.h"
#include "tests/kernel/one-machine.h"

struct fake_hca final : fabric::hca {
    struct sent_mad {
        int port;
        fabric::address destination;
        fabric::mad_bytes mad;
    };

    const std::string& name() const override { return hca_name; }
    int port_count() const override { return static_cast<int>(ports.size()); }
    fabric::port_attributes read_port(int port) override
    {
        fabric::port_attributes attributes = ports[static_cast<size_t>(port - 1)];
        if (while_read) while_read(port);
        return attributes;
    }
    bool send(int port, const fabric::address& destination, const fabric::mad_bytes& mad) override
    {
        if (accepts) sent_mads.push_back({port, destination, mad});
        return accepts;
    }
    bool poll() override { return while_polled && while_polled(); }
    void listen(fabric::listener* new_listener) override { listener = new_listener; }

    void arrive(int port, const sa_mad_v2_t& mad, const fabric::address& source = {.lid = 1}) const
    {
        listener->mad_arrived(port, source, test::bytes_of(mad));
    }
    // Stores the new state of the port, if the link changes, and then reports the change, in the order of a real
    // fabric.
    void change(int port, fabric::port_change change, uint16_t sm_lid = 0)
    {
        if (change == fabric::port_change::link_up || change == fabric::port_change::link_down)
            ports[static_cast<size_t>(port - 1)].state =
                change == fabric::port_change::link_up ? fabric::link_state::active : fabric::link_state::down;
        if (listener) listener->port_changed(port, change, sm_lid);
    }

    std::string hca_name = "mthca0";
    std::vector<fabric::port_attributes> ports{2};
    std::function<void(int port)> while_read; // read_port() calls it after the copy of the port's attributes
    std::function<bool()> while_polled;       // poll() calls it; true means that a MAD has arrived
    bool accepts = true;                      // false: send() refuses every MAD
    std::vector<sent_mad> sent_mads;
    fabric::listener* listener = nullptr;
};

struct plugged_fake {
    fake_hca hca;
};

// A machine with a fake HCA. The HCA is in the first base class, so it is destroyed after the machine.
struct machine_with_fake : plugged_fake, one_machine {
    explicit machine_with_fake(const exec::simulation_options& options = {}) : one_machine(options) { host.plug(hca); }

    // Runs every task that is ready now.
    void settle() const { sim->settle(); }
};
