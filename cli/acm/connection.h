// One connection of a program that asks for paths. It answers requests one at a time, in the order in which librdmacm
// sends them. A request stays in the socket until its answer is ready. If this process ends first, the next process
// finds the request there. Lives in the event loop's thread.
#pragma once

#include <array>
#include <chrono>
#include <string>

#include "cli/acm/messages.h"
#include "cli/server/libuv.h"
#include "client/descriptor.h"

namespace acm
{

class connection
{
  public:
    // The calls of a connection to its owner.
    struct owner {
        virtual ~owner() = default;
        virtual void take_request(connection& source, message_view request) = 0; // the owner must call answer() once
        virtual void request_timed_out(connection& source, message_view request) = 0;
        virtual void ended(connection& source) = 0; // its handles are closed; it may be destroyed
    };

    // Receives requests from `socket`. If the owner does not answer within `timeout`, request_timed_out() is called.
    // The owner chooses `number`.
    connection(owner& owner, uv_loop_t* loop, uint64_t number, client::descriptor socket,
               std::chrono::milliseconds timeout);
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;

    // Sends the answer to the current request.
    void answer(const message& bytes);

    // Identifies the current request. It changes with each answer.
    uint64_t request_number() const { return request_number_; }

    // Closes only this process's descriptor. Another process may still have the connection open.
    void close();

    // Ends the connection for the other program too.
    void cut_off();

    uint64_t number() const { return number_; }

  private:
    void look();
    void wait_for_rest();
    void begin(message_view request);
    void set_events(int events);
    void start_timer(uint64_t milliseconds);
    void timer_fired();
    void handle_closed();

    owner& owner_;
    const uint64_t number_;
    client::descriptor socket_;
    const uint64_t timeout_ms_;
    uv_poll_t poll_;
    uv_timer_t timer_;
    int events_ = 0;
    int open_handles_ = 2;
    uint64_t request_number_ = 0;
    std::array<uint8_t, longest_message> request_; // a copy: the socket keeps the original
    size_t request_length_ = 0;                    // 0 if no request is being answered
    uint64_t rest_deadline_ms_ = 0;                // for the rest of a partial request; 0 if there is none
    bool is_timer_running_ = false;
    bool is_closed_ = false;
};

} // namespace acm
