// Hosts of a simulated fabric, each an `ats run` of its own, and what its SA holds, both as `ats` tells them.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/fabric/ibsim-fabric.h"

namespace fabric_tools
{

using nlohmann::json;

// Host number i, from 1: on the node "node1", called so, with the address 10.0.0.1.
std::string node_name(int number);
std::string address_of(int number);
std::vector<std::string> node_names(int count, std::vector<std::string> others);

// The path of `ats`.
std::string ats_program();

class ats_host
{
  public:
    // Starts it. `more` are further options of `ats run`.
    ats_host(ibsim_fabric& net, int number, const std::vector<std::string>& more = {},
             const std::vector<std::string>& environment = {});

    // Whether it serves clients.
    bool wait_serving(duration longest = 30s);

    // What `ats COMMAND... --json` says about it; null when it says nothing that is JSON.
    json ask(std::vector<std::string> command) const;

    // Of its first port: {"state", "link", "gid", "lid", "sent", "received", ...}.
    json port() const;

    // The lines it printed.
    std::string output() const { return running_->output(); }
    process& running() { return *running_; }
    const std::string& name() const { return name_; }
    const std::string& folder() const { return running_->folder(); } // where it was started

    // Ends it in good order; its exit code.
    std::optional<int> stop() { return running_->stop(30s); }
    void kill() { net_.kill(*running_); }

  private:
    ibsim_fabric& net_;
    const std::string name_;
    const std::string socket_;
    std::unique_ptr<process> running_;
};

// The records that the SA tells a program on `node`, as `ats sa show --json` does; null when it is not to be had.
json records_at_sa(ibsim_fabric& net, const std::string& node, const std::vector<std::string>& filter = {});

// How many records there are; -1: it could not be learned.
int count_records(ibsim_fabric& net, const std::string& node);

// Host names with the address and GID of the record, as "node1 10.0.0.1 0xFE80...", in order.
std::vector<std::string> texts_of(const json& records);

} // namespace fabric_tools
