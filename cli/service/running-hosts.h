// The running world of `ats run`: a fabric in real time, its hosts, and what a client can ask of them. The fabric is an
// embedded one, or this machine's real ports with one host.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cli/service/world-config.h"
#include "console/failure.h"
#include "host/exec/executor.h"
#include "host/fabric/capture.h"
#include "host/fabric/embedded/subnet.h"
#include "host/world/host.h"

namespace cli
{

class running_hosts
{
  public:
    // Builds the fabric and the hosts; links of an embedded fabric are down. Modules come from `module_folder`. Throws
    // a failure when real ports cannot be opened, the capture file cannot be written, or the process has no room for
    // all hosts.
    running_hosts(const world_config& config, const std::string& module_folder);

    // Unloads every host's modules; see stop().
    ~running_hosts();

    // Loads every host's modules and brings all links of an embedded fabric up. Throws a failure naming the host that
    // did not start. `may_go_on` is asked before each host, with the number of those that have started; on its false
    // this ends early and returns false.
    bool start(const std::function<bool(size_t)>& may_go_on);

    // Takes the hosts down again, in reverse order. Returns a line for each that refused, and for a capture that is
    // not whole.
    std::vector<std::string> stop();

    // Since the site was built.
    std::chrono::seconds uptime() const;

    bool is_real() const { return real_ != nullptr; }

    // The embedded fabric. Throws a failure when there is none.
    embedded::subnet& subnet();
    const std::vector<std::unique_ptr<world::host>>& all() const { return hosts_; }

    // The host of that name, which is the service's own or the one it is registered under; the first one for "". Throws
    // a failure with the names there are.
    world::host& named(const std::string& name);

  private:
    void start_capture(const std::string& path);
    void stop_capture(std::vector<std::string>& complaints);

    const std::chrono::steady_clock::time_point built_ = std::chrono::steady_clock::now();
    std::unique_ptr<exec::executor> exec_;
    std::unique_ptr<fabric::capture> capture_; // before the fabric: it is written to until that is gone
    std::unique_ptr<embedded::subnet> subnet_; // this or the next
    std::unique_ptr<umad::real_fabric> real_;
    std::vector<std::unique_ptr<world::host>> hosts_;
};

} // namespace cli
