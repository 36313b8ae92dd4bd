// The subnet managers of a chaos run: one, or a master and a standby.
#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tools/fabric/ibsim-fabric.h"

namespace chaos
{

class sms
{
  public:
    explicit sms(fabric_tools::ibsim_fabric& net) : net_(net) {}

    // Starts an SM on the first node that has none. If another SM runs, the new one gets a higher priority
    // (`becomes_master`) or a lower one.
    void start(bool becomes_master);

    // kill_master() kills the master, or the first SM if none is the master. A standby then becomes the master.
    // stop_all() ends all SMs with SIGTERM, or with SIGKILL after 10 s. kill_all() ends all SMs with SIGKILL.
    void kill_master();
    void stop_all();
    void kill_all();

    // pause() stops all SMs with SIGSTOP. resume() continues them.
    void pause();
    void resume();

    bool is_empty() const { return members_.empty(); }

    // Returns true if all SMs run, there is one master, any other SM is a standby, and no link change waits for a
    // sweep. If an SM stays in another state, ibsim has lost an answer to it, and the SM hangs.
    bool are_quiet() const;

    // A record may stay at the SA after its host was killed, or was stopped while the SA could not be reached. keep()
    // notes such records ("ADDRESS NAME") of a GID for all SMs that run now. kept_of() returns them, as long as one of
    // these SMs runs.
    void keep(const std::string& gid, const std::set<std::string>& records);
    std::set<std::string> kept_of(const std::string& gid) const;

  private:
    struct member {
        std::unique_ptr<fabric_tools::process> program;
        std::string node;
        int priority = 0;
        std::set<std::string> kept; // noted by keep(), as "GID ADDRESS NAME"
    };
    enum class state { starting, standby, sweeping, master };
    static state state_of(const member& member);
    size_t master() const;

    fabric_tools::ibsim_fabric& net_;
    std::vector<member> members_;
};

} // namespace chaos
