// The objects that all ports of one real fabric share: the executor, the options and the tap.
#pragma once

#include <atomic>
#include <mutex>
#include <string>

#include "host/fabric/umad/umad.h"

namespace umad
{

class fabric_context
{
  public:
    fabric_context(exec::executor& executor, fabric_options options) : exec(executor), options(std::move(options)) {}

    exec::executor& exec;
    const fabric_options options;

    // Passes a line to the administrator. Any thread.
    void report(const port_remark& remark) const
    {
        if (options.report) options.report(remark);
    }

    // Passes a datagram to the tap, if there is one. Any thread.
    void show_tap(uint16_t source_lid, const fabric::address& destination, const fabric::mad_bytes& mad);

    // Implements real_fabric::set_tap.
    void set_tap(fabric::tap* tap);

  private:
    std::mutex tap_mutex_; // held while the tap is called
    std::atomic<fabric::tap*> tap_{nullptr};
};

} // namespace umad
