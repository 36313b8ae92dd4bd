// The world of `ats run`: a fabric in real time and its hosts. The fabric is an embedded one, or this machine's real
// ports with one host.
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

namespace cli
{

// After start(), any thread may ask for hosts and the subnet.
class running_hosts
{
  public:
    // Builds the fabric and the hosts, with the links of an embedded fabric down. Modules come from `module_folder`.
    // Fails if real ports cannot be opened, if the capture file cannot be written (invalid), or if the process has no
    // room for all hosts (no_memory).
    // `report` takes lines for the administrator about a host, in the calls of this class.
    using report_t = std::function<void(const std::string& host, const std::string& line)>;
    static ats::result<std::unique_ptr<running_hosts>> build(const world_config& config,
                                                             const std::string& module_folder, report_t report);

    // Unloads every host's modules; see stop().
    ~running_hosts();
    running_hosts(const running_hosts&) = delete;
    running_hosts& operator=(const running_hosts&) = delete;

    // Loads every host's modules and brings all links of an embedded fabric up. Calls `may_go_on` before each host,
    // with the number of hosts that have started. Returns false if `may_go_on` did. An error names the host that did
    // not start, with the end of its log.
    ats::result<bool> start(const std::function<bool(size_t)>& may_go_on);

    // Takes the hosts down, in reverse order, and deletes what the SA still holds of them. Until the SA has been silent
    // once it may take a second for a host. Returns a line for each host that refuses, and for an incomplete capture.
    std::vector<std::string> stop();

    // The time since build().
    std::chrono::seconds uptime() const;

    bool is_real() const { return real_fabric_ != nullptr; }

    // The embedded fabric, never null. A real fabric is invalid.
    ats::result<embedded::subnet*> subnet();

    const std::vector<std::unique_ptr<world::host>>& all() const { return hosts_; }

    // Any thread may count. The machine is one of these hosts.
    service_statistics& statistics() { return statistics_; }
    host_statistics& statistics_of(const kernel::machine& machine) { return host_statistics_.at(&machine); }

    // The host of that name, never null; the first host for "". A host has two names: the configured one, and the one
    // that it is registered under. An unknown or ambiguous name is invalid; the error lists the hosts.
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

    const std::chrono::steady_clock::time_point build_time_ = std::chrono::steady_clock::now();
    std::unique_ptr<exec::executor> exec_;
    std::unique_ptr<fabric::capture> capture_; // before the fabric, which writes to it until it is destroyed
    std::unique_ptr<embedded::subnet> subnet_; // this one or real_fabric_
    std::unique_ptr<umad::real_fabric> real_fabric_;
    service_statistics statistics_;
    std::map<const kernel::machine*, host_statistics> host_statistics_; // before the hosts, whose logs are followed
    std::optional<log_copy> journal_copy_;                              // likewise; empty without a journal
    std::vector<std::unique_ptr<world::host>> hosts_;
    const report_t report_;
    bool is_sa_silent_ = false;           // it has left a question of the service unanswered
    std::vector<host_settings> settings_; // of each host, as configured
};

} // namespace cli
