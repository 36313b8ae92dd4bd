// Runs the fabric and the hosts of `ats run`, in real time. The fabric is either embedded in this program, with any
// number of hosts, or it is reached through this machine's real ports, with this machine as the only host.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/service/log-copy.h"
#include "cli/service/name-questions.h"
#include "cli/service/statistics.h"
#include "cli/service/world-config.h"
#include "host/exec/executor.h"
#include "host/fabric/capture.h"
#include "host/fabric/embedded/subnet.h"
#include "host/result.h"
#include "host/world/host.h"
#include "recording/recorder.h"
#include "recording/watched-hca.h"

namespace cli
{

// One thread calls build(), start() and stop(). Between start() and stop(), any thread may call the other functions.
class running_hosts
{
  public:
    // Builds the fabric and the hosts. The links of an embedded fabric are still down. Modules come from
    // `module_folder`. Fails if real ports cannot be opened, if the capture or the recording cannot be written
    // (invalid), or if a limit of the process is reached (no_memory). start() and stop() call `report` with lines for
    // the administrator about a host.
    using report_t = std::function<void(const std::string& host, const std::string& line)>;
    static ats::result<std::unique_ptr<running_hosts>> build(const world_config& config,
                                                             const std::string& module_folder, report_t report);

    // Unloads every host's modules; see stop().
    ~running_hosts();
    running_hosts(const running_hosts&) = delete;
    running_hosts& operator=(const running_hosts&) = delete;

    // Loads every host's modules, then brings up all links of an embedded fabric. Before each host, calls `may_go_on`
    // with the number of hosts that have started. If `may_go_on` returns false, starts no further host and returns
    // false. An error names the host that did not start. Except for no_memory, it also shows the end of the host's log.
    ats::result<bool> start(const std::function<bool(size_t)>& may_go_on);

    // Stops the hosts in reverse order, and deletes the records that they have left at the SA. If the SA cannot be
    // asked, or does not answer within a second, stop() does not ask it about further hosts. Returns a line for each
    // host whose modules cannot be unloaded, and for an incomplete capture or recording.
    std::vector<std::string> stop();

    // The time since build().
    std::chrono::seconds uptime() const;

    bool is_real() const { return real_fabric_ != nullptr; }

    // Returns the embedded fabric, never null. Fails (invalid) on a real fabric.
    ats::result<embedded::subnet*> subnet();

    const std::vector<std::unique_ptr<world::host>>& all() const { return hosts_; }

    // Returns the tasks of the fabric. A watchdog checks that they still run.
    std::vector<fabric::fabric_task> fabric_tasks() const;

    // The questions about host names at the SA of a real fabric.
    cli::name_questions& name_questions() { return name_questions_; }

    // The counters for metrics. `machine` must be the machine of one of these hosts.
    service_statistics& statistics() { return statistics_; }
    host_statistics& statistics_of(const kernel::machine& machine) { return host_statistics_.at(&machine); }

    // Returns the host with that name, or the first host if `name` is "". Never null. `name` is the configured name or
    // the registered name of the host. Fails (invalid) if the name is unknown or ambiguous; the error lists the hosts.
    ats::result<world::host*> find(const std::string& name);

  private:
    explicit running_hosts(report_t report);
    void report_other_holder(world::host& host, const std::string& address) const;
    void delete_records(world::host& host);
    ats::result<> open_fabric(const fabric_config& config);
    ats::result<> add_host(const host_config& plan, const std::string& module_folder);
    ats::result<> start_capture(const std::string& path);
    ats::result<> stop_capture();
    void set_tap(fabric::tap* tap);
    ats::result<> start_recording(const std::string& path);
    ats::result<> stop_recording();
    std::vector<fabric::hca*> watched(const std::string& host, const std::vector<fabric::hca*>& hcas);

    const std::chrono::steady_clock::time_point build_time_ = std::chrono::steady_clock::now();
    std::unique_ptr<exec::executor> exec_;
    std::unique_ptr<fabric::capture> capture_; // destroyed after the fabric, whose destructor writes to it
    using file_pointer = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;
    file_pointer record_file_{nullptr, std::fclose};
    std::unique_ptr<recording::recorder> recorder_;                     // destroyed after everything that it records
    std::unique_ptr<embedded::subnet> subnet_;                          // null on a real fabric
    std::unique_ptr<umad::real_fabric> real_fabric_;                    // null on an embedded fabric
    std::vector<std::unique_ptr<recording::watched_hca>> watched_hcas_; // empty without a recording of a real fabric
    service_statistics statistics_;
    // These two follow the logs of the hosts, so they are destroyed after the hosts.
    std::map<const kernel::machine*, host_statistics> host_statistics_;
    std::optional<log_copy> journal_copy_; // empty without a journal
    std::vector<std::unique_ptr<world::host>> hosts_;
    cli::name_questions name_questions_; // closed before the hosts are destroyed
    const report_t report_;
    bool is_sa_silent_ = false;           // true: delete_leftovers() has failed, so stop() does not ask the SA again
    std::vector<host_settings> settings_; // the configured settings of each host
};

} // namespace cli
