// A host of a run, and the identity (name and addresses) that its administrator has set.
#pragma once

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "campaign/plan.h"
#include "campaign/port-model.h"
#include "campaign/questions.h"
#include "console/control-report.h"
#include "host/world/host.h"

namespace campaign
{

struct tested_fabric;
struct host_shape;

struct harm_watch;

struct node {
    node(tested_fabric& fabric, size_t number, const host_shape& shape);
    ~node();

    kernel::machine& machine() { return host.machine(); }
    bool is_live() { return machine().modules.is_loaded("ats"); }

    // Runs `body` in a new task of the host. The task must end before check_at_the_end() checks for open tasks.
    void start(const char* task_name, std::function<void()> body);

    // Joins the tasks that have ended.
    void reap();

    // Each call returns a new value that no other host gets. For some values of `random`, the name is longer than a
    // record allows.
    uint32_t next_address();
    std::string next_name(uint32_t random);

    // Marks the identity as uncertain, and calls `change`, which sets the identity and returns true on success. Then
    // calls `on_certain` if `change` succeeded, no other change ran at the same time, and no harmful act was running or
    // still had effects (see harm_watch).
    void change_identity(const std::function<bool()>& change, const std::function<void()>& on_certain);

    // Writes to the control file of the module ats. Call it in a task of the host. Returns true if the file exists and
    // accepts all bytes. `output` receives the log lines that the write causes.
    bool write_control(const std::string& text, std::string* output = nullptr);

    // Reads the control file of the module ats, and checks its report for contradictions. Call it in a task of the
    // host. Returns the member "hcas" of console::parse_control_report(), or null if there is no such file.
    console::json read_control();

    // Call it after an act has set the verification period and skew. `verification` has these values, in the form of
    // the member "verification" of console::parse_control_report(). The act is marked as effective when a later report
    // shows the values. The default values prove nothing, so an act that sets them is not marked.
    void expect_verification_settings(const act& act, console::json verification);

    // Loads or unloads a module. load() passes the name and the first address to the module ats. Call them in a task of
    // the host. They return false on failure.
    bool load(const std::string& module);
    bool unload(const std::string& module);

    // Returns true if a link of the HCA is up in the fabric.
    bool has_link(size_t hca);

    // These return true if a port has been cut off for good: this port, any port of this HCA, or any port of the host.
    bool is_cut_off(size_t hca, int port) const
    {
        return std::ranges::find(cut_ports, port_place{hca, port}) != cut_ports.end();
    }
    bool is_cut_off(size_t hca) const { return std::ranges::find(cut_ports, hca, &port_place::hca) != cut_ports.end(); }
    bool is_cut_off() const { return !cut_ports.empty(); }

    bool is_changing() const { return running_changes_ > 0; }
    bool has_tasks() const { return !tasks_.empty(); }

    tested_fabric& fabric;
    const size_t number;
    world::host host;
    std::vector<fabric::hca*> hcas;
    std::vector<port_model> models; // one for each HCA; empty without host_shape::has_models
    std::unique_ptr<watching_ucm> ucm;
    std::deque<question> questions;

    // The name and the addresses (one for each HCA) that the host should register. If a value is not certain, the host
    // may register any value that it has ever been given.
    std::string name;
    bool is_name_certain = true;
    uint64_t name_tick = 0; // when `name` was set
    std::vector<uint32_t> address;
    bool is_address_certain = true;
    std::vector<std::string> given_names;
    std::vector<uint32_t> given_addresses;

    harm_watch& harm() const { return *harm_; }
    struct port_place {
        size_t hca;
        int port;
        bool operator==(const port_place&) const = default;
    };
    std::vector<port_place> cut_ports;    // ports that were cut off for good, in one direction or in both
    uint64_t disturbed_tick = 0;          // when the host's links, identity or modules last changed
    uint64_t longest_period = 61;         // maximum seconds between two verifications by the host
    bool verification_may_be_off = false; // an act may have switched it off
    std::optional<act> failing_calls;     // the act that has armed the fault injector, until it is disarmed
    bool may_have_left_records = false;   // the module ats was unloaded when it possibly could not send Deletes
    bool may_know_wrong_ports = false;    // calls of the host were made to fail, so it may not know its ports or HCAs

  private:
    // Checks a log line of the host. The line must agree with the models. If the line says that the answer to a Delete
    // did not come in time, the task must have waited exactly the allowed time, unless the task has a signal.
    void check_line(const std::string& line);

    struct running_task {
        exec::task* task;
        bool has_ended = false;
    };
    std::deque<std::unique_ptr<running_task>> tasks_;
    std::unique_ptr<harm_watch> harm_;
    int running_changes_ = 0;   // number of change_identity() calls that run now
    uint64_t change_count_ = 0; // number of all change_identity() calls
    uint32_t address_count_ = 0;
    uint32_t name_count_ = 0;
    std::optional<act> verification_act_; // set by expect_verification_settings(), until a report shows the values
    console::json verification_;
    std::map<const exec::task*, uint64_t> sent_ticks_; // when each task sent its last request
};

} // namespace campaign
