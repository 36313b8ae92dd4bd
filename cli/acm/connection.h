// One connection of a program that asks for paths. The door (door.h) answers the program's requests one at a time, in
// the order in which librdmacm sends them. The connection only peeks at a request (MSG_PEEK): the request stays in the
// socket until its answer is ready. If this process ends before that, and the service manager has a copy of the socket,
// the next process of the service finds the request there. All calls are made in the event loop's thread.
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
    // The calls that a connection makes to its owner.
    struct owner {
        virtual ~owner() = default;
        // A request has come. The owner calls answer() once for it, during this call or later.
        virtual void take_request(connection& source, message_view request) = 0;
        // The owner has not answered the request in time. The owner then calls answer() during this call.
        virtual void request_timed_out(connection& source, message_view request) = 0;
        // The connection has closed its libuv handles. The owner may destroy the connection.
        virtual void connection_ended(connection& source) = 0;
    };

    // Receives requests from `socket`. If the owner does not answer a request within `timeout`, calls
    // request_timed_out(). `number` is the owner's number for the connection.
    connection(owner& owner, uv_loop_t* loop, uint64_t number, client::descriptor socket,
               std::chrono::milliseconds timeout);
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;

    // Sends the answer to the current request. Calls cut_off() if the socket does not take the whole answer. Does
    // nothing if the connection is closed or the request was answered.
    void answer(const message& bytes);

    // Returns the number of the current request. The number increases with each answer.
    uint64_t request_number() const { return request_number_; }

    // Stops receiving; connection_ended() follows. The destructor closes this process's descriptor. The program's
    // connection stays open if the service manager has a copy of the descriptor.
    void close();

    // Ends the connection for the program at its other end, too, and then does the same as close().
    void cut_off();

    uint64_t number() const { return number_; }

  private:
    void peek_request();
    void wait_for_rest();
    void begin_request(message_view request);
    void set_events(int events);
    void start_timer(uint64_t milliseconds);
    void handle_timer();
    void count_closed_handle();

    owner& owner_;
    const uint64_t number_;
    client::descriptor socket_;
    const uint64_t timeout_ms_;
    uv_poll_t poll_;
    uv_timer_t timer_;
    int events_ = 0;       // the events that poll_ reports
    int open_handles_ = 2; // poll_ and timer_
    uint64_t request_number_ = 0;
    std::array<uint8_t, longest_message> request_; // a copy of the request; the request itself is still in the socket
    size_t request_length_ = 0;                    // 0: no request is being answered
    uint64_t rest_deadline_ms_ = 0; // when the rest of a partial request must have come; 0: no rest is missing
    bool is_timer_running_ = false;
    bool is_closed_ = false;
};

} // namespace acm
