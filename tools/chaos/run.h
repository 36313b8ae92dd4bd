// Carries out the plan of a chaos run on real programs. After each round it checks that everything is right again;
// truths.cpp says what must be right.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/chaos/host.h"
#include "tools/chaos/plan.h"
#include "tools/chaos/sms.h"

namespace chaos
{

// Programs that ask the SA directly run on this node.
constexpr const char* tool_node = "desk";

// Numbers for the summary.
struct figures {
    std::map<act_kind, int> acts;
    int rounds = 0;
    int questions = 0;       // addresses and GIDs that hosts were asked for
    int unanswered = 0;      // questions answered with "timed out" or "not found"; allowed only during faults
    int orders_repeated = 0; // how often settle() repeated the orders of a host
    int sms_lost = 0;        // how often settle() replaced the SMs, because ibsim had lost an answer
    std::chrono::milliseconds longest_settling{0}; // the longest time until settle() found everything right
};

class run
{
  public:
    // `hosts` is the number of hosts.
    run(int hosts, const std::string& recordings_folder, const host_options& options);

    // Starts all programs, and waits until everything is right. Throws failure after a time limit.
    void begin();

    // Carries out the next round, and waits until everything is right. Throws failure after a time limit. Throws
    // failure at once if an answer is wrong during the faults, but a host may then answer that it found nothing.
    void carry_out(const round& round);

    // Ends all hosts, one after another, and waits until everything is right. Throws failure after a time limit, for
    // example if the SA still has a record that a stopped host should have deleted.
    void end();

    const figures& counts() const { return figures_; }
    std::string current_act() const { return current_act_; }

    // Returns the recording of the host that the failure names, or of the first host if it names none.
    const std::string& recording_of(const failure& failure) const;

    // Copies the logs of the hosts, the SMs and ibsim to the folder of the recordings, and the configurations and
    // captures of the hosts. Adds the acts, and `failure` if there is one, to the recordings.
    void keep_logs(const std::optional<failure>& failure);

  private:
    using record_map = std::map<std::string, std::string>; // GID to "ADDRESS NAME"

    struct noted_act {
        clock::time_point time;
        const char* phase; // "begin" or "end" of an act, or "moment" if it has no end
        int number;
        chaos::act act;
    };

    void begin_act(const act& act);
    void act_on_sm(const act& act);
    void act_on_host(const act& act);
    void heal(const round& round);
    void note(const act& act, const char* phase);
    host& host_of(const act& act) { return *hosts_[static_cast<size_t>(act.host - 1)]; }

    // Asks one host for the addresses and GIDs of all others. Throws failure if an answer is wrong, except if
    // the host found nothing.
    void look_up_all();

    // Waits until first_failure() finds nothing. Throws failure after a time limit.
    void settle();
    std::optional<failure> first_failure();
    std::optional<failure> failure_of_process(host& host) const;
    std::optional<failure> failure_of_disk(const host& host) const;
    std::optional<failure> failure_of_registration(host& host, const record_map& records) const;
    std::optional<failure> failure_of_lookups(host& host, const record_map& records);
    std::optional<record_map> read_records();
    void note_silence();
    void wait_quiet();
    // From now on, the SA may have the present records of the host after the host has ended.
    void allow_remaining_records(const host& host);
    void annotate(const host& host, const std::optional<failure>& failure) const;

    const std::string recordings_folder_;
    fabric_tools::ibsim_fabric net_;
    sms sms_;
    std::vector<std::unique_ptr<host>> hosts_;
    std::vector<noted_act> noted_acts_;
    std::string current_act_;
    std::vector<act> faults_;      // faults of this round that have not ended
    bool is_sa_disturbed_ = false; // an act on an SM has begun in this round
    int lookup_count_ = 0;
    std::optional<clock::time_point> silent_since_; // since when the SA does not answer or sms::are_quiet() is false
    figures figures_;
};

} // namespace chaos
