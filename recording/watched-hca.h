// Wraps an HCA of a real fabric and records the datagrams and changes at its ports. On the embedded fabric, the
// recorder itself observes the subnet. A watched HCA cannot see whether a request arrives, or when an answer was sent.
#pragma once

#include <atomic>

#include "recording/recorder.h"

namespace recording
{

class watched_hca final : public fabric::hca, private fabric::listener
{
  public:
    // Reads the ports of `hca`; may sleep. `hca`, `recorder` and `exec` must outlive this object. port_changed() reads
    // the changed port again. hca.read_port() must not sleep there.
    watched_hca(std::string host, fabric::hca& hca, recorder& recorder, const exec::executor& exec);

    const std::string& name() const override { return hca_.name(); }
    int port_count() const override { return hca_.port_count(); }
    fabric::port_attributes read_port(int port) override { return hca_.read_port(port); }
    bool send(int port, const fabric::address& destination, const fabric::mad_bytes& mad) override;
    bool poll() override { return hca_.poll(); }
    void listen(fabric::listener* listener) override;

  private:
    void mad_arrived(int port, const fabric::address& source, const fabric::mad_bytes& mad) override;
    void may_complete(bool again) override { listener_.load()->may_complete(again); }
    void port_changed(int port, fabric::port_change change, uint16_t new_sm_lid) override;

    const std::string host_;
    fabric::hca& hca_;
    recorder& recorder_;
    const exec::executor& exec_;
    std::atomic<fabric::listener*> listener_{nullptr};
    std::mutex mutex_; // guards views_
    std::vector<embedded::port_view> views_;
};

} // namespace recording
