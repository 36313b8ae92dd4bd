// Tells the service manager (systemd) regularly that the service works, with WATCHDOG=1 of sd_notify(3). Sends this
// notice only if no part of the service hangs. The parts are the event loop, the workers, the lookups, and the tasks of
// the fabric and of all hosts. If the unit of the service has WatchdogSec=, systemd ends the service when no notice
// comes; systemd starts the service again if the unit has a Restart= for this.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "cli/server/event-loop.h"
#include "cli/server/lookups.h"
#include "cli/server/workers.h"
#include "cli/service/running-hosts.h"
#include "host/stack/liveness.h"

namespace cli
{

// Finds the parts of the service that hang. Most of them are asked for a sign of life first; see missing() for the
// others. Only one thread may use an object. The arguments of the constructor must outlive the object.
class life_signs
{
  public:
    // If a request runs for longer than this time, it counts as hanging. The longest orders wait for several
    // answers of the SA, for one or two seconds each.
    static constexpr std::chrono::minutes longest_request{5};

    life_signs(event_loop& loop, workers& workers, host_lookups& lookups, const running_hosts& hosts);

    // Asks the event loop and the tasks of the fabric and the hosts for a sign of life. Does not wait.
    void ask();

    // Returns the names of the parts that have shown no sign of life since ask(), for example "the event loop" or
    // "timer of node1". Workers and lookups are not asked: the list has "a worker" if a request has run for longer than
    // `longest_request`, and "lookups of NAME" if passing one question to the host NAME has taken longer than that.
    std::vector<std::string>
    missing(std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now()) const;

  private:
    event_loop& loop_;
    workers& workers_;
    host_lookups& lookups_;
    const running_hosts& hosts_;
    const std::vector<fabric::fabric_task> fabric_tasks_;
    std::vector<uint64_t> fabric_rounds_; // for each of fabric_tasks_: its count of rounds at the time of ask()
    std::shared_ptr<std::atomic<bool>> has_loop_answered_; // shared with the work that ask() posts to the loop
    std::vector<stack::liveness> liveness_;                // one for each host
};

// Returns the longest time between two notices that the service manager allows. Returns nothing if the service manager
// expects no notices from this process.
std::optional<std::chrono::microseconds> watchdog_period();

class watchdog
{
  public:
    // Starts a thread that sends the notices, if the service manager expects them. The thread calls `report` with a
    // line for the administrator when a part shows no sign of life, and with another line when all parts show one
    // again.
    watchdog(event_loop& loop, workers& workers, host_lookups& lookups, const running_hosts& hosts,
             std::function<void(const std::string&)> report);
    ~watchdog();

  private:
    void run(std::chrono::microseconds period);
    void check();

    life_signs signs_;
    const std::function<void(const std::string&)> report_;
    bool is_sign_missing_ = false; // true if the last check found a part without a sign of life; only thread_ uses it

    std::mutex mutex_;             // guards is_stopping_
    std::condition_variable stop_; // signalled when is_stopping_ is set
    bool is_stopping_ = false;
    std::thread thread_;
};

} // namespace cli
