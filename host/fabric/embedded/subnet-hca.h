// An HCA of the embedded subnet: its ports, and the doors of the fabric boundary that lead into the subnet.
#pragma once

#include <vector>

#include "host/fabric/embedded/subnet.h"

namespace embedded
{

// Guarded by the subnet, except what never changes.
struct port_record {
    subnet_hca* const owner;
    const int number;
    const uint16_t assigned_lid;
    const fabric::gid_bytes gid;
    const std::vector<uint16_t> p_keys;

    // What the port has learned from the subnet manager; zero before its link first came up.
    uint16_t lid = 0;
    uint16_t sm_lid = 0;
    uint8_t sm_sl = 0;

    fabric::link_state state = fabric::link_state::down;
    uint32_t bad_p_keys = 0;
    uint32_t bad_q_keys = 0;

    bool is_active() const { return state == fabric::link_state::active; }
};

class subnet_hca final : public fabric::hca
{
  public:
    subnet_hca(subnet& plugged_into, std::string host_name, std::string hca_name, int port_count)
        : host(std::move(host_name)), net_(plugged_into), name_(std::move(hca_name))
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
    void listen(fabric::listener* to) override { net_.set_listener(*this, to); }

    const std::string host;
    std::vector<port_record> ports;   // complete, and in place for good, before the HCA is handed out
    fabric::listener* told = nullptr; // guarded by the subnet

  private:
    subnet& net_;
    const std::string name_;
};

} // namespace embedded
