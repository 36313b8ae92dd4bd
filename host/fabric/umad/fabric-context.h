// What the ports of a fabric have in common.
#pragma once

#include <atomic>
#include <mutex>
#include <string>

#include "host/fabric/umad/umad.h"

namespace umad
{

class surroundings
{
  public:
    surroundings(exec::executor& executor, options wanted_options) : exec(executor), wanted(std::move(wanted_options))
    {
    }

    exec::executor& exec;
    const options wanted;

    void say(const std::string& text) const
    {
        if (wanted.say) wanted.say(text);
    }

    // Any thread.
    void show_tap(uint16_t source_lid, const fabric::address& destination, const fabric::mad_bytes& mad);
    void set_tap(fabric::tap* to);

  private:
    std::mutex tap_mutex_; // held over the tap
    std::atomic<fabric::tap*> tap_{nullptr};
};

} // namespace umad
