// The world of `ats demo`: three hosts on an embedded fabric in simulated time. Each step of the demo uses the stage to
// act on the hosts, to check the effect, and to print it.
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
#include "recording/recorder.h"

namespace cli
{

// Thrown by a step of the demo when an expectation is not met. The text is the expectation, or the error of the call
// that failed. A step is a list of expectations, like a test, so it uses an exception and not results.
struct step_failed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class stage
{
  public:
    // At the start, no module is loaded and all links are down. `tap` (or null) receives every datagram. `recorder` (or
    // null) receives every event. Both must outlive the stage. Modules come from `module_folder`. With `is_terminal`,
    // the output is formatted for a terminal: titles in bold, log lines dim.
    stage(const std::string& module_folder, fabric::tap* tap, recording::recorder* recorder, bool is_terminal);
    ~stage();
    stage(const stage&) = delete;
    stage& operator=(const stage&) = delete;

    exec::simulation& time() { return *time_; }
    embedded::subnet& subnet() { return *subnet_; }
    const std::vector<std::unique_ptr<world::host>>& hosts() const { return hosts_; }
    world::host& node1() { return *hosts_[0]; }
    world::host& node2() { return *hosts_[1]; } // has two ports
    world::host& node3() { return *hosts_[2]; }

    // ---- actions: they throw step_failed if they fail ----

    void set_link(world::host& host, int port, bool is_up);
    void write_control(world::host& host, const std::string& command);
    std::string read_control(world::host& host); // returns the report of ats

    // Advances the time in steps of 10 ticks until `holds()` returns true. Returns the ticks that have passed. Throws
    // step_failed if `limit_ticks` have passed before that.
    template <class condition_t>
    uint64_t wait_for(uint64_t limit_ticks, const std::string& expectation, condition_t holds);

    // Returns the SA's record with that host name. Throws step_failed if the SA has none or several.
    embedded::service_record_view record_of(const std::string& host_name);

    // ---- checks: they throw step_failed ----

    static void expect(bool holds, const std::string& expectation)
    {
        if (!holds) throw step_failed(expectation);
    }
    static void expect(const ats::result<>& result)
    {
        if (!result) throw step_failed(result.error().text);
    }

    // ---- output ----

    // Starts a step: prints its title and the time, and passes them to the recorder.
    void begin(size_t number, const std::string& title);
    void say(const std::string& fact) const;
    void say(const std::string& question, const world::resolution& answer) const;
    void show_records(); // prints all records of the SA

    // Prints the first line with `fragment` that the host has logged in this step. Throws step_failed if there is none.
    void quote(world::host& host, const std::string& fragment);

  private:
    bool is_terminal_;
    recording::recorder* recorder_;
    std::unique_ptr<exec::simulation> time_;
    std::unique_ptr<embedded::subnet> subnet_;
    std::vector<std::unique_ptr<world::host>> hosts_;
    std::vector<uint64_t> log_positions_; // the end of each host's log at the start of the step
};

template <class condition_t>
uint64_t stage::wait_for(uint64_t limit_ticks, const std::string& expectation, condition_t holds)
{
    constexpr uint64_t check_period_ticks = 10;
    const uint64_t begin = time_->now();
    while (!holds()) {
        const bool is_in_time = time_->now() < begin + limit_ticks;
        expect(is_in_time, expectation + " within " + std::to_string(limit_ticks) + " ms");
        time_->run_for(check_period_ticks);
    }
    return time_->now() - begin;
}

} // namespace cli
