// The thread that serves all clients: libuv's loop, and a call that gives it work from other threads.
#pragma once

#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "cli/server/libuv.h"

namespace cli
{

class event_loop
{
  public:
    event_loop();
    ~event_loop(); // all of its handles must be closed

    event_loop(const event_loop&) = delete;
    event_loop& operator=(const event_loop&) = delete;

    uv_loop_t* uv() { return &loop_; }

    // Starts the loop in a thread of its own. That thread receives no signals.
    void start();

    // Runs `work` in the loop's thread, soon and in order. Any thread.
    void post(std::function<void()> work);

    // Calls `work` at the end of every round, after all input of the round was handled. Call it before start().
    void set_end_of_round(std::function<void()> work) { end_of_round_ = std::move(work); }

    // Ends the thread after the work that was posted before. All handles of the loop must be closed before.
    void stop();

  private:
    void run_posted();

    uv_loop_t loop_;
    uv_async_t wake_up_;
    uv_check_t round_;
    std::function<void()> end_of_round_ = [] {};
    std::mutex mutex_; // guards posted_
    std::vector<std::function<void()>> posted_;
    std::thread thread_;
};

} // namespace cli
