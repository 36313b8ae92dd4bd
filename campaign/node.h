// A host of a campaign, with what its administrator believes of it.
#pragma once

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

struct arena;
struct host_shape;

struct harm_watch;

struct node {
    node(arena& in, size_t number, const host_shape& shape);
    ~node();

    kernel::machine& machine() { return host.machine(); }
    bool is_live() { return machine().modules.is_loaded("ats"); }

    // Runs `body` in a task of the host; the arena waits for its end in the end.
    void start(const char* task_name, std::function<void()> body);
    void reap();

    // A new one at each call, which no other host has.
    uint32_t next_address();
    std::string next_name(uint32_t how);

    // Runs `change`, which sets the identity and says whether it went well. Only when nothing else was changing it and
    // nothing did harm are its effects certain; then `settled` is called.
    void change_identity(const std::function<bool()>& change, const std::function<void()>& settled);

    // The control file, from a task of the host. write: whether it was taken, with what was logged about it. read: the
    // HCAs as its report shows them, after a look for contradictions; null when there is no such file.
    bool write_control(const std::string& text, std::string* said = nullptr);
    console::json read_control();

    // From now on, counts `act` as effective once a report of the control file shows this verification period and
    // skew, in the form of console::parse_control_report.
    void expect_verification(const act& act, console::json verification);

    // Loads a module with the present identity, or unloads it; from a task of the host.
    bool load(const std::string& module);
    bool unload(const std::string& module);

    // Whether the links of an HCA are up, in the fabric.
    bool has_link(size_t hca);

    bool is_changing() const { return changes_running_ > 0; }
    bool has_tasks() const { return !tasks_.empty(); }

    arena& in;
    const size_t number;
    world::host host;
    std::vector<fabric::hca*> hcas;
    std::vector<port_model> models; // of the HCAs, when the host traces
    std::unique_ptr<watching_ucm> ucm;
    std::deque<question> questions;

    // What it should register. Addresses are each HCA's; those that are not certain may be any that it was given.
    std::string name;
    bool name_is_certain = true;
    uint64_t name_tick = 0;
    std::vector<uint32_t> address;
    bool address_is_certain = true;
    std::vector<std::string> names_given;
    std::vector<uint32_t> addresses_given;

    harm_watch& harm() const { return *harm_; }
    uint64_t disturbed_tick = 0;        // its links or its identity changed last
    uint64_t longest_period = 61;       // seconds between two of its verifications
    bool may_not_verify = false;        // they may be switched off
    std::optional<act> failing_calls;   // the act that armed the machine's fault injector last
    bool may_have_left_records = false; // it was unloaded when no delete could be sent
    bool may_be_misread = false;        // a query of a port may have failed

  private:
    void logged(const std::string& line);

    struct running_task {
        exec::task* task;
        bool has_ended = false;
    };
    std::deque<std::unique_ptr<running_task>> tasks_;
    std::unique_ptr<harm_watch> harm_;
    int changes_running_ = 0;
    uint64_t changes_begun_ = 0;
    uint32_t addresses_made_ = 0;
    uint32_t names_made_ = 0;
    std::optional<act> verification_act_; // a report has yet to show what it wrote
    console::json verification_;
    std::map<const exec::task*, uint64_t> sent_ticks_; // when each task sent something last
};

} // namespace campaign
