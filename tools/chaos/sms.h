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

    // Starts one on the first node that has none, with a priority above or below that of the present one.
    void start(bool becomes_master);

    // Ends the master, or all of them. Then no SM runs, or the standby becomes the master.
    void kill_master();
    void stop_all();
    void kill_all();

    void pause();
    void resume();

    bool is_empty() const { return members_.empty(); }

    // True if there is one master, the other one is a standby, and no change of a link waits for a sweep. An SM that
    // stays in another state has lost an answer in ibsim, and hangs.
    bool are_quiet() const;

    // GIDs and records ("ADDRESS NAME") that an SA may keep of a host that has gone: of hosts that were killed, or that
    // left while the SA could not be reached. A new SM has none.
    void keep(const std::string& gid, const std::set<std::string>& records);
    std::set<std::string> kept_of(const std::string& gid) const;

  private:
    struct member {
        std::unique_ptr<fabric_tools::process> program;
        std::string node;
        int priority = 0;
        std::set<std::string> kept; // "GID ADDRESS NAME"
    };
    enum class state { starting, standby, sweeping, master };
    static state state_of(const member& member);
    size_t master() const;

    fabric_tools::ibsim_fabric& net_;
    std::vector<member> members_;
};

} // namespace chaos
