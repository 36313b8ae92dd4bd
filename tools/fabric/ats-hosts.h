// Real hosts on a simulated fabric, and the records of its SA. Each host is a separate `ats run`. Commands of `ats`
// report the state of the hosts and the records.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/fabric/ibsim-fabric.h"

namespace fabric_tools
{

using nlohmann::json;

// node_name() returns the name of a host and of its node. address_of() returns the address of a host. Host 1 is "node1"
// with 10.0.0.1.
std::string node_name(int number);
std::string address_of(int number);

// Returns `others`, followed by the node names of hosts 1 to `count`.
std::vector<std::string> node_names(int count, std::vector<std::string> others);

// Returns the path of the program `ats`.
std::string ats_program();

// Asks the service at the socket with `ats COMMAND... --json`. ibsim supports only a few programs. This client needs no
// port, so it runs outside of ibsim. Returns its output, or null if the output is not JSON.
json ask_service(ibsim_fabric& net, const std::string& socket, std::vector<std::string> command);

class fabric_host
{
  public:
    // Starts the host, with additional options of `ats run` and additional environment variables.
    fabric_host(ibsim_fabric& net, int number, const std::vector<std::string>& options = {},
                const std::vector<std::string>& environment = {});

    // Waits until the host serves clients. Returns false if it does not within the time limit.
    bool wait_serving(duration longest = 30s);

    // Asks the host; see ask_service().
    json ask(std::vector<std::string> command) const { return ask_service(net_, socket_, std::move(command)); }

    // Returns the status of the host's first port: {"state", "link", "gid", "lid", "sent", "received", ...}.
    // Returns {} if the host does not answer.
    json port() const;

    // Returns the output of the host so far.
    std::string output() const { return program_->output(); }
    process& program() { return *program_; }
    const std::string& name() const { return name_; }
    const std::string& folder() const { return program_->folder(); } // the host's working folder

    // Ends the host with SIGTERM, or with SIGKILL after 30 s. Returns the same as process::stop().
    std::optional<int> stop() { return program_->stop(30s); }

    // Kills the host (SIGKILL); see ibsim_fabric::kill().
    void kill() { net_.kill(*program_); }

  private:
    ibsim_fabric& net_;
    const std::string name_;
    const std::string socket_;
    std::unique_ptr<process> program_;
};

// Runs `ats sa show --real --json` on `node`, with the filter options. Returns the SA's records, or null on failure.
json records_at_sa(ibsim_fabric& net, const std::string& node, const std::vector<std::string>& filter = {});

// Returns the number of records at the SA, or -1 if the SA cannot be asked.
int count_records(ibsim_fabric& net, const std::string& node);

// Formats each record as "node1 10.0.0.1 0xFE80...", and sorts the texts.
std::vector<std::string> texts_of(const json& records);

} // namespace fabric_tools
