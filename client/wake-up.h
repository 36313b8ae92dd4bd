// The descriptor that ats_descriptor() returns to programs for poll(). It is readable when the connection has input or
// can take waiting output, when there are answers to collect, or when the deadline of a question has passed. It is an
// epoll instance, which contains the socket, a timer and an event descriptor. The client's mutex guards this object.
#pragma once

#include "client/connection.h"

namespace client
{

class wake_up
{
  public:
    // Creates the descriptors. Returns false if no descriptors are left.
    bool open();
    void close();
    int fd() const { return epoll_.get(); }

    // watch_socket() adds the socket of a new connection. Call forget_socket() before the socket is closed.
    void watch_socket(int socket);
    void forget_socket(int socket);

    // Makes the descriptor readable from now on when `socket` has input, when `socket` accepts output (if
    // `has_output`), at once (if `has_answers`), and at `first_deadline`. `socket` is -1 if there is no connection.
    void set(int socket, bool has_output, bool has_answers, clock::time_point first_deadline);

  private:
    descriptor epoll_;
    descriptor timer_;        // readable after `alarm_`
    descriptor answer_event_; // readable while `has_answers_`
    bool has_output_ = false; // true if epoll also reports when the socket accepts output
    bool has_answers_ = false;
    clock::time_point alarm_ = clock::time_point::max();
};

} // namespace client
