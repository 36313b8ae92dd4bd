// The few threads that carry out what may take its time: orders, the status, verifications. Users take turns, and one
// user's jobs take half of the threads at most: those of others go on while his wait for a silent SA.
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
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

    // Drops what is queued, and waits for what is being carried out. Nothing is carried out afterwards.
    void stop();

    // Any thread.
    void push(const queue_place& place, std::function<void()> job);
    void remove(const queue_place& place);

  private:
    void work();
    std::optional<uid_t> next_user() const; // with mutex_ held

    const size_t most_of_user_;
    std::mutex mutex_; // guards the next four
    std::condition_variable changed_;
    fair_queue<std::function<void()>> queue_;
    std::map<uid_t, size_t> running_; // jobs by user
    bool is_stopping_ = false;
    std::vector<std::thread> threads_;
};

} // namespace cli
