// The few threads that carry out what may take its time: orders, the status, verifications. Users take turns.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
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

    std::mutex mutex_; // guards the next three
    std::condition_variable changed_;
    fair_queue<std::function<void()>> queue_;
    bool is_stopping_ = false;
    std::vector<std::thread> threads_;
};

} // namespace cli
