// A real HCA: its ports, each with a task of its own, and the common listener of the ports.
#pragma once

#include <memory>
#include <vector>

#include "host/fabric/umad/device-events.h"
#include "host/fabric/umad/port.h"

namespace umad
{

class real_hca final : public fabric::hca
{
  public:
    real_hca(fabric_context& context, const hca_listing& hca);

    // Opens every InfiniBand port and starts its task. Fails if one of them cannot be opened. Call it once.
    ats::result<> open();

    const std::string& name() const override { return name_; }
    int port_count() const override { return static_cast<int>(ports_.size()); }

    // Returns the last report of the port, which is at most one watch interval old. Does not wait, even if the HCA is
    // slow, because the listener gets every change anyway.
    fabric::port_attributes read_port(int port) override;
    bool send(int port, const fabric::address& destination, const fabric::mad_bytes& mad) override;
    bool poll() override;
    void listen(fabric::listener* listener) override;

    datagram_counts counts() const;

    // The tasks of its InfiniBand ports, and the task that takes its events.
    std::vector<fabric::fabric_task> tasks();

  private:
    void take_event(const device_event& event);

    template <class call_t>
    void call_listener(const call_t& call);

    fabric_context& context_;
    const std::string name_;
    registered_p_keys p_keys_;
    std::mutex listener_mutex_; // held during each call of the listener: one call at a time
    fabric::listener* listener_ = nullptr;
    std::vector<bool> is_infiniband_;          // one for each port
    std::vector<std::unique_ptr<port>> ports_; // declared after the members that their tasks use
    std::unique_ptr<device_events> events_;    // declared last: its task uses the ports
};

} // namespace umad
