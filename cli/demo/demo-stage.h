// The stage of `ats demo`: three hosts on an embedded fabric in simulated time, and the ways of a step to act on them,
// to tell about it, and to make sure that it happened.
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/fabric/embedded/subnet.h"
#include "host/world/host.h"
#include "host/world/resolution.h"

namespace cli
{

// What was to happen and did not.
struct step_failed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class stage
{
  public:
    // Nothing is loaded yet, and all links are down. `tap` (or null) sees every datagram. Modules come from
    // `module_folder`. `is_terminal`: what is told may use colours.
    stage(const std::string& module_folder, fabric::tap* tap, bool is_terminal);

    exec::simulation& time() { return *time_; }
    embedded::subnet& subnet() { return *subnet_; }
    const std::vector<std::unique_ptr<world::host>>& hosts() const { return hosts_; }
    world::host& node1() { return *hosts_[0]; }
    world::host& node2() { return *hosts_[1]; } // has two ports
    world::host& node3() { return *hosts_[2]; }

    // ---- acting ----

    void link(world::host& at, int port, bool up);
    void write_control(world::host& at, const std::string& command);
    std::string read_control(world::host& at); // its report

    // Lets time pass until `holds()`, for at most `limit_ticks`. Returns how long it took; fails when it does not.
    template <class condition_t>
    uint64_t wait_for(uint64_t limit_ticks, const std::string& what, condition_t holds);

    // The record of that host name at the SA; fails unless there is exactly one.
    embedded::service_record_view record_of(const std::string& host_name);

    // ---- making sure ----

    static void expect(bool holds, const std::string& what)
    {
        if (!holds) throw step_failed(what);
    }
    static void expect(const ats::result<>& result)
    {
        if (!result) throw step_failed(result.error().text);
    }

    // ---- telling ----

    // A headline, with the time.
    void begin(size_t number, const std::string& title);
    void say(const std::string& fact) const;
    void say(const std::string& asked, const world::resolution& answer) const;
    void show_records();

    // The first line in the host's log since the step began that holds `fragment`; fails when there is none.
    void quote(world::host& at, const std::string& fragment);

  private:
    bool is_terminal_;
    std::unique_ptr<exec::simulation> time_;
    std::unique_ptr<embedded::subnet> subnet_;
    std::vector<std::unique_ptr<world::host>> hosts_;
    std::vector<uint64_t> log_positions_; // of each host, when the step began
};

template <class condition_t>
uint64_t stage::wait_for(uint64_t limit_ticks, const std::string& what, condition_t holds)
{
    constexpr uint64_t glance_ticks = 10;
    const uint64_t begin = time_->now();
    while (!holds()) {
        expect(time_->now() < begin + limit_ticks, what + " within " + std::to_string(limit_ticks) + " ms");
        time_->run_for(glance_ticks);
    }
    return time_->now() - begin;
}

} // namespace cli
