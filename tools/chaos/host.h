// A host of a chaos run: one `ats run` process with its own configuration. The object also knows which addresses and
// names the host's records may have at the moment.
#pragma once

#include <chrono>
#include <filesystem>
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

// The resources that a process uses: open file descriptors, and resident memory in KiB.
struct resources {
    long descriptors = 0;
    long resident_kib = 0;
};

struct host_options {
    bool has_small_disk = false; // without it, the act fill_disk does nothing
    std::string modules;         // folder of the modules; empty: the default of `ats run`
};

class host
{
  public:
    // Makes the host's disk. The service will write its recordings to `recordings_folder`, and its other files to the
    // disk.
    host(fabric_tools::ibsim_fabric& net, int number, std::string gid, const host_options& options,
         std::string recordings_folder);

    // Starts the service, and waits until it serves clients. Throws failure if it does not within 30 s.
    void start();

    // Kills the service (SIGKILL).
    void kill();

    // Ends the service with SIGTERM. Throws failure if it does not end within 40 s, or if its exit code shows an error
    // other than a capture that could not be written because the disk was full.
    void stop();

    void pause();
    void resume();

    // These functions order the service to change its address or name. If the service does not confirm an order, the
    // old or the new value may be registered, until repeat_orders() succeeds. `number` selects the new value.
    void set_address(int number);
    void set_name(int number);
    void reload(int number); // changes the configuration file and sends SIGHUP, which nothing confirms
    void repeat_orders();

    // fill_disk() uses all space of the disk. make_room() frees this space. If the service runs, make_room() first
    // waits until the service reports the full disk or ends. Throws failure if neither happens within a time limit.
    void fill_disk();
    void make_room();

    // After make_room() for a running service: true until new metrics show that the host is registered.
    bool lacks_metrics() const;

    // Runs `ats COMMAND --json` as a client of this host; see fabric_tools::ask_service().
    json ask(std::vector<std::string> command) const;
    resources resource_use() const;

    int number() const { return number_; }
    std::string name() const { return fabric_tools::node_name(number_); }
    const std::string& gid() const { return gid_; }
    bool is_running() const { return is_running_; }
    bool is_paused() const { return is_paused_; }
    bool has_open_orders() const { return has_open_orders_; }
    bool has_ended_by_itself() { return is_running_ && program_->has_ended(); }
    std::string output() const { return program_->output(); }
    const std::set<std::string>& addresses() const { return addresses_; }
    const std::set<std::string>& names() const { return names_; }

    // Returns all addresses that the host was ever ordered or configured to have.
    const std::set<std::string>& known_addresses() const { return known_addresses_; }

    // Returns the records that the SA may have of this host while the host runs, as "ADDRESS NAME".
    std::set<std::string> possible_records() const;

    // The first call after a start stores the present resource use. Later calls return the stored value.
    const resources& first_resource_use();

    const std::string& recording() const { return recording_; } // file of the running process, or of the last process
    clock::time_point recording_begin() const { return recording_begin_; }

  private:
    void write_configuration() const;
    void order(const std::string& command, const std::string& value, std::set<std::string>& values);
    std::string address(int number) const;
    std::string new_name(int number) const;
    uint64_t last_recorded_tick() const;
    std::string metrics_path() const { return disk_.folder() + "/ats.prom"; }
    bool complains_of_disk() const;

    fabric_tools::ibsim_fabric& net_;
    const int number_;
    const std::string gid_, recordings_folder_, modules_;
    chaos::disk disk_;
    std::unique_ptr<fabric_tools::process> program_;
    std::string recording_;
    clock::time_point recording_begin_{};
    int starts_ = 0;
    bool is_running_ = false, is_paused_ = false, has_open_orders_ = false;
    std::set<std::string> addresses_, names_; // the values that may be registered now
    std::set<std::string> known_addresses_;
    std::string last_address_, last_name_; // from the last order, or from the configuration
    std::optional<resources> first_resource_use_;
    std::optional<std::filesystem::file_time_type> old_metrics_; // time of the metrics file in the last make_room()
};

// Something that must be true, but is not. Thrown as an exception.
struct failure {
    std::string text, expected, actual;
};

} // namespace chaos
