// A few threads that execute slow requests, for example orders, the status and verifications. The users take turns. The
// jobs of one user use at most half of the threads, or the only thread if there is one. So if one user's jobs wait for
// an SA that does not answer, other users still have threads, except if there is only one.
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
    // Starts `threads` threads. Throws exec::shortage if a thread cannot be created.
    explicit workers(size_t threads);

    ~workers() { stop(); }

    // Waits for the running jobs. Jobs in the queue are not run any more.
    void stop();

    // Returns the time at which the oldest running job has begun, or nothing if no job runs. Any thread.
    std::optional<std::chrono::steady_clock::time_point> oldest_start();

    // Adds a job of the user and connection `place` to the queue. Any thread.
    void push(const queue_place& place, std::function<void()> job);

    // Removes the jobs of a connection from the queue. Any thread.
    void remove(const queue_place& place);

  private:
    void work();

    // Returns the first user, in the order of the turns, who has a job in the queue and may use another thread. The
    // caller holds mutex_.
    std::optional<uid_t> next_user() const;

    const size_t user_limit_; // threads that one user may use at a time
    std::mutex mutex_;        // guards the next five members
    std::condition_variable change_;
    fair_queue<std::function<void()>> queue_;
    std::map<uid_t, size_t> running_jobs_;                        // number of jobs by user
    std::multiset<std::chrono::steady_clock::time_point> starts_; // when the running jobs began
    bool is_stopping_ = false;
    std::vector<std::thread> threads_;
};

} // namespace cli
