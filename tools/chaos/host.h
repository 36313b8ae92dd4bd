// A host of a chaos run: an `ats run` with a configuration of its own, and the states in which it may be.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "tools/chaos/disk.h"
#include "tools/fabric/ats-hosts.h"

namespace chaos
{

using namespace std::chrono_literals;
using clock = std::chrono::steady_clock;
using fabric_tools::json;

// The resources that a process uses.
struct resources {
    long descriptors = 0;
    long resident_kib = 0;
};

struct host_options {
    bool has_small_disk = false; // without one, an act that fills the disk does nothing
    std::string modules;         // the folder of the modules; empty: those of the program
};

class host
{
  public:
    // The service writes to a disk of its own. Its recordings are written to the
    // folder `records`.
    host(fabric_tools::ibsim_fabric& net, int number, std::string gid, const host_options& options,
         std::string records);

    // Starts the service, and waits until it serves clients. Throws failure if it does not.
    void start();

    // Ends the service without warning.
    void kill();

    // Ends the service in order. Throws failure if it does not end, or not in order.
    void stop();

    void pause();
    void resume();

    // Gives the host a new address or name with an order. If the service does not confirm it, both the old and the new
    // one may be registered, until repeat_orders() succeeds.
    void set_address(int number);
    void set_name(int number);
    void reload(int number); // the same for both, with the configuration
    void repeat_orders();

    json ask(std::vector<std::string> command) const;
    resources resource_use() const;

    int number() const { return number_; }
    std::string name() const { return fabric_tools::node_name(number_); }
    const std::string& gid() const { return gid_; }
    chaos::disk& disk() { return disk_; }
    bool is_running() const { return is_running_; }
    bool is_paused() const { return is_paused_; }
    bool has_open_orders() const { return has_open_orders_; }
    bool has_ended_by_itself() { return is_running_ && program_->has_ended(); }
    std::string output() const { return program_->output(); }
    const std::set<std::string>& addresses() const { return addresses_; }
    const std::set<std::string>& names() const { return names_; }
    const std::set<std::string>& known_addresses() const { return known_addresses_; } // all that it ever had

    // The records that it may have at the SA while it runs, as "ADDRESS NAME".
    std::set<std::string> possible_records() const;

    // The first call after a start stores the value, later ones return what was stored.
    const resources& first_resource_use();

    const std::string& recording() const { return recording_; } // of the present or the last process
    clock::time_point recording_begin() const { return recording_begin_; }

  private:
    void write_configuration() const;
    void order(const std::string& command, const std::string& value, std::set<std::string>& values);
    std::string address(int number) const;
    std::string new_name(int number) const;
    uint64_t last_recorded_tick() const;

    fabric_tools::ibsim_fabric& net_;
    const int number_;
    const std::string gid_, records_, modules_;
    chaos::disk disk_;
    std::unique_ptr<fabric_tools::process> program_;
    std::string recording_;
    clock::time_point recording_begin_{};
    int starts_ = 0;
    bool is_running_ = false, is_paused_ = false, has_open_orders_ = false;
    std::set<std::string> addresses_, names_; // those that may be registered
    std::set<std::string> known_addresses_;
    std::string last_address_, last_name_; // those of the last order, or of the configuration
    std::optional<resources> first_resource_use_;
};

// A truth that does not hold.
struct failure {
    std::string text, expected, actual;
};

} // namespace chaos
