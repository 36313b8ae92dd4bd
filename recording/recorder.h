// Writes a recording of a run: sent and arrived datagrams, changes of ports and of the SA's records, and log lines of
// hosts. docs/recording.md describes the format, which is JSON Lines. The recorder only watches: it does not change the
// run.
#pragma once

#include <array>
#include <cstdio>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

#include "host/fabric/embedded/subnet.h"
#include "host/kernel/machine.h"
#include "host/result.h"

namespace recording
{

using json = nlohmann::ordered_json;

constexpr int format_version = 1;

// Any thread may call any function, unless its comment says otherwise.
class recorder final : public embedded::observer
{
  public:
    // Writes to `file`, which stays open. `program` is the command line that repeats the run.
    recorder(std::FILE* file, const std::string& program);

    // The next three calls are for one thread at a time. follow() begins to record the events of the subnet, or the log
    // lines of a host. stop() ends both; afterwards the recorder no longer uses the subnet and the machines.
    void follow(embedded::subnet& subnet);
    void follow(const std::string& host, kernel::machine& machine);
    void stop();

    // Records one log line of a host.
    void note_line(const std::string& host, const kernel::log_line& line);

    // Records an event of the program, for example an act of a campaign, with its kind and its own fields.
    void note(uint64_t now_ticks, const char* kind, json fields);

    // Records the active faults of the subnet, if they have changed. Each event of the subnet does this too.
    void note_faults(uint64_t now_ticks);

    // Records all records of the SA, for comparison with the recorded changes.
    void note_table(uint64_t now_ticks);

    // Writes the last event, with the subnet's own counters, and flushes the file. Afterwards nothing is recorded.
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
    void write(uint64_t now_ticks, const char* kind, const json& fields);

    std::mutex mutex_; // guards the file and the next four members
    std::FILE* const file_;
    embedded::subnet* subnet_ = nullptr;
    bool is_finished_ = false;
    switch_values switches_{};
    std::map<kernel::machine*, int> log_handles_; // the handle of kernel::log::follow
};

} // namespace recording
