// Tells the service manager regularly that the service works (sd_notify's WATCHDOG=1). It does so only while the event
// loop and every task of every host show a sign of life. A manager with WatchdogSec= restarts a service that hangs.
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

// The parts of the service that must show a sign of life. For one thread. Its arguments must outlive it.
class life_signs
{
  public:
    // The longest orders wait for several answers of the SA, for one or two seconds each.
    static constexpr std::chrono::minutes longest_request{5};

    life_signs(event_loop& loop, workers& workers, host_lookups& lookups, const running_hosts& hosts);

    // Asks all parts for a sign of life.
    void ask();

    // Returns the parts without a sign of life since ask(), for example "the event loop" or "timer of node1".
    // A worker is missing if its request has run for longer than `longest_request`. So are the lookups of a host that
    // have been passing on one question for that time.
    std::vector<std::string>
    missing(std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now()) const;

  private:
    event_loop& loop_;
    workers& workers_;
    host_lookups& lookups_;
    const running_hosts& hosts_;
    const std::vector<fabric::fabric_task> fabric_tasks_;
    std::vector<uint64_t> fabric_rounds_; // of each task, at ask()
    std::shared_ptr<std::atomic<bool>> has_loop_answered_;
    std::vector<stack::liveness> liveness_; // for each host
};

// The period in which the service manager expects a notice, or nothing if it expects none from this process.
std::optional<std::chrono::microseconds> watchdog_period();

class watchdog
{
  public:
    // Notifies the manager until it is destroyed, if the manager expects notices. `report` receives a line when signs
    // are missing, and another line when all are back.
    watchdog(event_loop& loop, workers& workers, host_lookups& lookups, const running_hosts& hosts,
             std::function<void(const std::string&)> report);
    ~watchdog();

  private:
    void run(std::chrono::microseconds period);
    void look();

    life_signs signs_;
    const std::function<void(const std::string&)> report_;
    bool is_missed_ = false; // only for the thread

    std::mutex mutex_; // guards is_stopping_
    std::condition_variable stopped_;
    bool is_stopping_ = false;
    std::thread thread_;
};

} // namespace cli
