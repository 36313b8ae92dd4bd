// The running world of `ats run`: an embedded fabric in real time, its hosts, and what a client can ask of them.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "cli/failure.h"
#include "cli/world-config.h"
#include "host/fabric/embedded/subnet.h"
#include "host/kernel/executor.h"
#include "host/world/host.h"

namespace cli
{

class site
{
  public:
    // Builds the fabric and the hosts, links down. Modules come from `module_folder`.
    site(const world_config& config, const std::string& module_folder);

    // Unloads every host's modules; see stop().
    ~site();

    // Loads every host's modules and brings all links up. Throws a failure naming the host that did not start.
    void start();

    // Takes the hosts down again, in reverse order. Returns a line for each that refused.
    std::vector<std::string> stop();

    embedded::subnet& subnet() { return *subnet_; }
    const std::vector<std::unique_ptr<world::host>>& hosts() const { return hosts_; }

    // The host of that name; the first one for "". Throws a failure with the names there are.
    world::host& host_named(const std::string& name);

  private:
    std::unique_ptr<kernel::executor> exec_;
    std::unique_ptr<embedded::subnet> subnet_;
    std::vector<std::unique_ptr<world::host>> hosts_;
};

} // namespace cli
