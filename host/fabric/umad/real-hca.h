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

    // Opens every InfiniBand port and starts its task. Fails if one of the ports cannot be opened. Throws a shortage if
    // a task cannot be created. Call open() once.
    ats::result<> open();

    const std::string& name() const override { return name_; }
    int port_count() const override { return static_cast<int>(ports_.size()); }

    // Returns the latest known attributes of the port (see port::read). Does not ask the port now, so does not wait.
    // The port's task asks the port regularly, and reports every change to the listener.
    fabric::port_attributes read_port(int port) override;
    bool send(int port, const fabric::address& destination, const fabric::mad_bytes& mad) override;
    bool poll() override;
    void listen(fabric::listener* listener) override;

    datagram_counts counts() const;

    // The tasks of the InfiniBand ports, and the task that receives the HCA's events.
    std::vector<fabric::fabric_task> tasks();

  private:
    void take_event(const device_event& event);

    template <class call_t>
    void call_listener(const call_t& call);

    fabric_context& context_;
    const std::string name_;
    registered_p_keys p_keys_;
    std::mutex listener_mutex_; // held during each call of the listener, so calls never overlap
    fabric::listener* listener_ = nullptr;
    std::vector<bool> is_infiniband_;          // one for each port
    std::vector<std::unique_ptr<port>> ports_; // declared after the members that their tasks use
    std::unique_ptr<device_events> events_;    // declared last: its task uses the ports
};

} // namespace umad
