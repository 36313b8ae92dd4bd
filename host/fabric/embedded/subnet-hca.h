// An HCA of the embedded subnet. It owns its ports, and passes send() and listen() to the subnet.
#pragma once

#include <vector>

#include "host/fabric/embedded/subnet.h"

namespace embedded
{

// A port of an HCA. The lock of the subnet guards all members that are not const.
struct port_record {
    subnet_hca* const owner;
    const int number;
    const uint16_t assigned_lid;
    const fabric::gid_bytes gid;
    const std::vector<uint16_t> p_keys;

    // The subnet manager assigns the next three values. They are zero before the first link-up.
    uint16_t lid = 0;
    uint16_t sm_lid = 0;
    uint8_t sm_sl = 0;

    fabric::link_state state = fabric::link_state::down;
    uint32_t bad_p_keys = 0;
    uint32_t bad_q_keys = 0;

    bool is_cut_outbound = false;
    bool is_cut_inbound = false;
    uint64_t lost_at_cuts = 0;

    bool is_active() const { return state == fabric::link_state::active; }
};

port_view view_of(const port_record& port);

class subnet_hca final : public fabric::hca
{
  public:
    subnet_hca(subnet& net, std::string host_name, std::string hca_name, int port_count)
        : host(std::move(host_name)), net_(net), name_(std::move(hca_name))
    {
        ports.reserve(static_cast<size_t>(port_count));
    }

    const std::string& name() const override { return name_; }
    int port_count() const override { return static_cast<int>(ports.size()); }
    fabric::port_attributes read_port(int port) override;
    bool send(int port, const fabric::address& destination, const fabric::mad_bytes& mad) override
    {
        return net_.send(*this, port, destination, mad);
    }
    void listen(fabric::listener* listener) override { net_.set_listener(*this, listener); }

    const std::string host;
    std::vector<port_record> ports;       // subnet::add_hca() fills it; later the number of ports is fixed
    fabric::listener* listener = nullptr; // guarded by the lock of the subnet

  private:
    subnet& net_;
    const std::string name_;
};

} // namespace embedded
