// A real HCA: its ports, of which each has a task, and the one listener that all of them tell.
#pragma once

#include <memory>
#include <vector>

#include "host/fabric/umad/port.h"

namespace umad
{

class adapter final : public fabric::hca
{
  public:
    adapter(surroundings& around, const hca_listing& listed);

    // Opens every InfiniBand port. Empty, or why one cannot be opened.
    std::string open();

    const std::string& name() const override { return name_; }
    int port_count() const override { return static_cast<int>(ports_.size()); }

    // What the port last told, one watch interval ago at the most: every change is told to the listener as well, and
    // nobody has to wait for an HCA that is slow to answer.
    fabric::port_attributes read_port(int port) override;
    bool send(int port, const fabric::address& destination, const fabric::mad_bytes& mad) override;
    bool poll() override;
    void listen(fabric::listener* to) override;

    traffic_counts counts() const;

  private:
    template <class call_t>
    void tell(const call_t& call);

    surroundings& around_;
    const std::string name_;
    own_records records_;
    std::mutex telling_; // held over the listener: it is told one thing at a time
    fabric::listener* told_ = nullptr;
    std::vector<bool> is_infiniband_;
    std::vector<std::unique_ptr<port>> ports_; // last: their tasks use all the rest
};

} // namespace umad
