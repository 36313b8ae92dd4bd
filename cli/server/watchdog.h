// Tells the service manager that the service works (sd_notify's WATCHDOG=1), as long as it does: the event loop and
// every task of every host show a sign of life. A manager with WatchdogSec= restarts a service that hangs.
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
#include "cli/service/running-hosts.h"
#include "host/stack/liveness.h"

namespace cli
{

// The parts of the service that must show a sign of life. One thread. Loop and hosts outlive it.
class life_signs
{
  public:
    life_signs(event_loop& loop, const running_hosts& hosts);

    // Asks all parts for a sign.
    void ask();

    // The parts that have not given one since ask(): "the event loop", "timer of node1".
    std::vector<std::string> missing() const;

  private:
    event_loop& loop_;
    const running_hosts& hosts_;
    std::shared_ptr<std::atomic<bool>> has_loop_answered_;
    std::vector<stack::liveness> liveness_; // of each host
};

// The period within which the service manager wants a notice; nothing if it wants none of this process.
std::optional<std::chrono::microseconds> watchdog_period();

class watchdog
{
  public:
    // Notifies the manager until it is destroyed, if a period is wanted. `report` takes a line when signs are missing,
    // and another one when all are back.
    watchdog(event_loop& loop, const running_hosts& hosts, std::function<void(const std::string&)> report);
    ~watchdog();

  private:
    void run(std::chrono::microseconds period);
    void look();

    life_signs signs_;
    const std::function<void(const std::string&)> report_;
    bool is_missed_ = false; // of the thread

    std::mutex mutex_; // guards is_stopping_
    std::condition_variable stopped_;
    bool is_stopping_ = false;
    std::thread thread_;
};

} // namespace cli
