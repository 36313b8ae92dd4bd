// The thread that serves all clients. It runs libuv's loop. Other threads give it work with post(). A round is one
// iteration of the loop: it handles input that has arrived.
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
    // Throws exec::shortage if too few descriptors are left.
    event_loop();

    // All handles of the loop must be closed.
    ~event_loop();

    event_loop(const event_loop&) = delete;
    event_loop& operator=(const event_loop&) = delete;

    uv_loop_t* uv() { return &loop_; }

    // Starts a thread that runs the loop. Throws exec::shortage if no thread can be created.
    void start();

    // Makes the loop's thread run `work` as soon as possible. The thread runs all posted work in the order of the
    // calls. Any thread.
    void post(std::function<void()> work);

    // Makes the loop call `work` at the end of every round, when the loop has handled the input. Call
    // set_end_of_round() before start().
    void set_end_of_round(std::function<void()> work) { end_of_round_ = std::move(work); }

    // Ends the loop and its thread after all work that was posted before. The owners of other handles must have closed
    // them, or must have posted work that closes them.
    void stop();

  private:
    void run_queue();

    uv_loop_t loop_;
    uv_async_t wake_up_;
    uv_check_t round_check_; // libuv calls it once in each round, after the input
    std::function<void()> end_of_round_ = [] {};
    std::mutex mutex_;                         // guards queue_
    std::vector<std::function<void()>> queue_; // posted work
    std::thread thread_;
};

} // namespace cli
