// Hosts of a simulated fabric, each an `ats run` of its own, and the records of its SA. Both are read through `ats`.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/fabric/ibsim-fabric.h"

namespace fabric_tools
{

using nlohmann::json;

// Node name (which is the host name) and address of a host by number: 1 is "node1" with 10.0.0.1.
std::string node_name(int number);
std::string address_of(int number);

// The names of `others`, followed by those of hosts 1 to `count`.
std::vector<std::string> node_names(int count, std::vector<std::string> others);

// The path of the program `ats`.
std::string ats_program();

class fabric_host
{
  public:
    // Starts it, with further options of `ats run` and further variables of the environment.
    fabric_host(ibsim_fabric& net, int number, const std::vector<std::string>& options = {},
                const std::vector<std::string>& environment = {});

    // Waits until it serves clients. False: it did not in time.
    bool wait_serving(duration longest = 30s);

    // Runs `ats COMMAND... --json` for it. Returns the output; null if that is not JSON.
    json ask(std::vector<std::string> command) const;

    // The status of its first port: {"state", "link", "gid", "lid", "sent", "received", ...}.
    json port() const;

    // Its output so far.
    std::string output() const { return program_->output(); }
    process& program() { return *program_; }
    const std::string& name() const { return name_; }
    const std::string& folder() const { return program_->folder(); } // its working folder

    // Ends it with SIGTERM; returns its exit code as process::stop does.
    std::optional<int> stop() { return program_->stop(30s); }

    // Kills it without warning.
    void kill() { net_.kill(*program_); }

  private:
    ibsim_fabric& net_;
    const std::string name_;
    const std::string socket_;
    std::unique_ptr<process> program_;
};

// The records of the SA, asked from `node` by `ats sa show --json` with these filter options; null if that fails.
json records_at_sa(ibsim_fabric& net, const std::string& node, const std::vector<std::string>& filter = {});

// The number of records at the SA; -1 if it cannot be asked.
int count_records(ibsim_fabric& net, const std::string& node);

// Each record as "node1 10.0.0.1 0xFE80...", in the order of these texts.
std::vector<std::string> texts_of(const json& records);

} // namespace fabric_tools
