// Writes a recording of a run, for example its datagrams, port changes, changes of the SA's records and log lines of
// hosts. The format is JSON Lines; docs/recording.md describes it. The recorder does not change the run.
#pragma once

#include <array>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

#include "host/fabric/embedded/subnet.h"
#include "host/kernel/machine.h"
#include "host/result.h"
#include "host/stack/event-watch.h"

namespace recording
{

using json = nlohmann::ordered_json;

constexpr int format_version = 1;

// Any thread may call any function, except for follow() and stop().
class recorder final : public embedded::observer
{
  public:
    // Writes to `file`. The caller owns `file` and closes it after the last call of the recorder. `program` is the
    // command line that repeats the run. After a failed write, the recorder writes nothing more: a reader accepts a
    // torn last line, but no torn line before other lines. It then calls `report` (or null) once with the reason. The
    // call comes from any thread and under a lock, so `report` must neither wait nor call the recorder.
    using report_t = std::function<void(const std::string& reason)>;
    recorder(std::FILE* file, const std::string& program, report_t report = {});

    // The first follow() begins to record the events of a subnet. The second one begins to record the log lines of a
    // host and the port events that the host handles. stop() ends all this. The machines must live until stop(). The
    // subnet must outlive the last call of the recorder: note() and finish() read the subnet's faults and counters.
    // Only one thread at a time may call follow() and stop(). Call follow(subnet) before other threads use the
    // recorder.
    void follow(embedded::subnet& subnet);
    void follow(const std::string& host, kernel::machine& machine);
    void stop();

    // Records an event of any kind, with its fields. Programs add their own kinds, for example "act" for a campaign.
    // Calls note_faults() first.
    void note(uint64_t now_ticks, const char* kind, json fields);

    // Records each fault switch of the subnet whose value differs from the value recorded last; at first, from 0.
    // Without follow(subnet), records nothing.
    void note_faults(uint64_t now_ticks);

    // Records all ServiceRecords of the SA, for comparison with the recorded changes. Needs follow(subnet).
    void note_table(uint64_t now_ticks);

    // Calls note_faults(). Then records the last event, "end", with the counters of the subnet if there is one, and
    // flushes the file. Later events are ignored. Fails if an event could not be written.
    ats::result<> finish(uint64_t now_ticks);

    // ---- embedded::observer ----

    void sent(uint64_t now_ticks, const embedded::observed_datagram& datagram, const embedded::port_view* sender,
              uint16_t destination_lid) override;
    void arrived(uint64_t now_ticks, const embedded::observed_datagram& datagram,
                 const embedded::port_view* receiver) override;
    void lost(uint64_t now_ticks, const embedded::observed_datagram& datagram, const char* reason,
              bool has_reached_end) override;
    void refused(uint64_t now_ticks, const fabric::mad_bytes& mad, const embedded::port_view& sender) override;
    void port_changed(uint64_t now_ticks, const embedded::port_view& port) override;
    void sm_moved(uint64_t now_ticks, uint16_t lid) override;
    void record_stored(uint64_t now_ticks, const ib_service_record_v2_t& record) override;
    void record_removed(uint64_t now_ticks, const ib_service_record_v2_t& record) override;

  private:
    using switch_values = std::array<uint32_t, 15>;
    static switch_values values_of(const embedded::fault_switches& faults);
    void note_line(const std::string& host, const kernel::log_line& line);
    void note_handled(const std::string& host, const stack::handled_event& event);
    const char* cause_of(const stack::handled_event& event, const std::string& port);
    void write(uint64_t now_ticks, const char* kind, const json& fields);
    void write_line(const std::string& line);

    std::mutex mutex_; // guards the file, status_, is_finished_, switches_ and the LIDs
    std::FILE* const file_;
    const report_t report_;
    ats::result<> status_; // the first failure
    embedded::subnet* subnet_ = nullptr;
    bool is_finished_ = false;
    switch_values switches_{};
    std::map<kernel::machine*, int> log_handles_;     // the results of kernel::log::follow()
    std::map<std::string, uint16_t> lids_;            // of each port, by port name, as recorded last
    std::map<std::string, uint16_t> registered_lids_; // the LIDs at the last link-up that was handled
};

} // namespace recording
