// Carries out a plan on real programs, and checks after each round that everything is right again.
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

// The node for programs that ask the SA.
constexpr const char* tool_node = "desk";

// Numbers for the summary.
struct figures {
    std::map<act_kind, int> acts;
    int rounds = 0;
    int questions = 0;  // of hosts about each other
    int unanswered = 0; // questions without an answer; only during faults
    int orders_repeated = 0;
    int sms_lost = 0; // an SM that ended or hung by itself, because ibsim had lost an answer to it
    std::chrono::milliseconds longest_settling{0};
};

class run
{
  public:
    // `hosts` is their number, `records` the folder for recordings.
    run(int hosts, const std::string& records, const host_options& options);

    // Starts all programs. Throws failure if they do not reach the right state.
    void begin();

    // Carries out the next round, and waits until everything is right. Throws failure after a time limit, or at once if
    // an answer is wrong that no fault can excuse.
    void carry_out(const round& round);

    // Ends all hosts in order. Throws failure if a record stays.
    void end();

    const figures& counts() const { return figures_; }
    std::string current_act() const { return current_act_; }

    // Copies the logs of all programs to the folder of the recordings. Adds the acts to the recordings, and the failure
    // if there is one.
    void keep_logs(const std::optional<failure>& failure);

  private:
    using record_map = std::map<std::string, std::string>; // "ADDRESS NAME" by GID

    struct noted_act {
        clock::time_point time;
        const char* phase; // "begin", "end" or "moment"
        int number;
        chaos::act act;
    };

    void begin_act(const act& act);
    void act_on_sm(const act& act);
    void act_on_host(const act& act);
    void heal(const round& round);
    void note(const act& act, const char* phase);
    host& host_of(const act& act) { return *hosts_[static_cast<size_t>(act.host - 1)]; }

    // One host asks for all others. An answer must be right, or missing.
    void look();

    void settle();
    std::optional<failure> first_fault();
    std::optional<failure> fault_of_process(host& host) const;
    std::optional<failure> fault_of_registration(host& host, const record_map& records) const;
    std::optional<failure> fault_of_lookups(host& host, const record_map& records);
    std::optional<record_map> read_records();
    void note_silence();
    void wait_quiet();
    void keep_records_of(const host& host);
    void annotate(const host& host, const std::optional<failure>& failure) const;

    const std::string records_;
    fabric_tools::ibsim_fabric net_;
    sms sms_;
    std::vector<std::unique_ptr<host>> hosts_;
    std::vector<noted_act> noted_acts_;
    std::string current_act_;
    std::vector<act> faults_;      // of this round, until they end
    bool is_sa_disturbed_ = false; // in this round
    int looks_ = 0;
    std::optional<clock::time_point> silent_since_; // the SA does not answer, or the SM sweeps
    figures figures_;
};

} // namespace chaos
