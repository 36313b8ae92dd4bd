// A few threads that execute slow requests: orders, the status, verifications. Users take turns. The jobs of one user
// get at most half of the threads. If they wait for a silent SA, the jobs of other users still run.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <vector>

#include "cli/server/fair-queue.h"

namespace cli
{

class workers
{
  public:
    explicit workers(size_t threads);

    ~workers() { stop(); }

    // Drops the queue, and waits for the running jobs. Runs no jobs afterwards.
    void stop();

    // The time at which the oldest running job began; none: no job runs. Any thread.
    std::optional<std::chrono::steady_clock::time_point> oldest_start();

    // Any thread.
    void push(const queue_place& place, std::function<void()> job);
    void remove(const queue_place& place);

  private:
    void work();
    std::optional<uid_t> next_user() const; // the caller holds mutex_

    const size_t most_of_user_;
    std::mutex mutex_; // guards the next five members
    std::condition_variable changed_;
    fair_queue<std::function<void()>> queue_;
    std::map<uid_t, size_t> running_jobs_;                        // number of jobs by user
    std::multiset<std::chrono::steady_clock::time_point> starts_; // of the running jobs
    bool is_stopping_ = false;
    std::vector<std::thread> threads_;
};

} // namespace cli
