// The fabric and the hosts of `ats run`, in real time. The fabric is an embedded one, or this machine's real ports with
// one host.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/service/log-copy.h"
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

// After start(), any thread may ask for hosts and the subnet.
class running_hosts
{
  public:
    // Builds the fabric and the hosts, with the links of an embedded fabric down. Modules come from `module_folder`.
    // Fails if real ports cannot be opened, if the capture file cannot be written (invalid), or if a limit of the
    // process is reached (no_memory). The calls of this class pass lines about a host to `report`, for the
    // administrator.
    using report_t = std::function<void(const std::string& host, const std::string& line)>;
    static ats::result<std::unique_ptr<running_hosts>> build(const world_config& config,
                                                             const std::string& module_folder, report_t report);

    // Unloads every host's modules; see stop().
    ~running_hosts();
    running_hosts(const running_hosts&) = delete;
    running_hosts& operator=(const running_hosts&) = delete;

    // Loads every host's modules and brings all links of an embedded fabric up. Calls `may_go_on` before each host,
    // with the number of started hosts. Returns false if `may_go_on` returned false. An error names the host that did
    // not start, with the end of its log.
    ats::result<bool> start(const std::function<bool(size_t)>& may_go_on);

    // Stops the hosts in reverse order, and deletes their remaining records from the SA. If the SA is silent, this
    // takes a second, and the SA is not asked for the other hosts. Returns a line for each host that refuses to unload,
    // and for an incomplete capture.
    std::vector<std::string> stop();

    // The time since build().
    std::chrono::seconds uptime() const;

    bool is_real() const { return real_fabric_ != nullptr; }

    // The embedded fabric, never null. An error (invalid) on a real fabric.
    ats::result<embedded::subnet*> subnet();

    const std::vector<std::unique_ptr<world::host>>& all() const { return hosts_; }

    // The tasks of the fabric, for a watchdog.
    std::vector<fabric::fabric_task> fabric_tasks() const;

    // Any thread may count. The machine must be one of these hosts.
    service_statistics& statistics() { return statistics_; }
    host_statistics& statistics_of(const kernel::machine& machine) { return host_statistics_.at(&machine); }

    // The host with that name, or the first host for "". Never null. A host has two names: the configured one, and the
    // registered one. An unknown or ambiguous name is invalid; the error lists the hosts.
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
    std::unique_ptr<fabric::capture> capture_; // before the fabric, which writes to it in its destructor
    using file_pointer = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;
    file_pointer record_file_{nullptr, std::fclose};
    std::unique_ptr<recording::recorder> recorder_; // before everything that it records
    std::unique_ptr<embedded::subnet> subnet_;      // this one or real_fabric_
    std::unique_ptr<umad::real_fabric> real_fabric_;
    std::vector<std::unique_ptr<recording::watched_hca>> watched_hcas_; // of a real fabric that is recorded
    service_statistics statistics_;
    std::map<const kernel::machine*, host_statistics> host_statistics_; // before the hosts, whose logs it follows
    std::optional<log_copy> journal_copy_; // also before the hosts; empty without a journal
    std::vector<std::unique_ptr<world::host>> hosts_;
    const report_t report_;
    bool is_sa_silent_ = false;           // it has not answered a question of the service
    std::vector<host_settings> settings_; // the configured settings of each host
};

} // namespace cli
