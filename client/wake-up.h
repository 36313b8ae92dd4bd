// The descriptor of a client for poll() in programs. It is readable when the connection has input, when there are
// answers to collect, or when a question's deadline has passed.
#pragma once

#include "client/connection.h"

namespace client
{

class wake_up
{
  public:
    // Returns false if no descriptors are left.
    bool open();
    int fd() const { return epoll_.get(); }

    // Adds a new connection's socket, and removes it before it is closed.
    void watch_socket(int socket);
    void forget_socket(int socket);

    // Sets the reasons to become readable from now on.
    void set(int socket, bool has_unsent, bool has_answers, clock::time_point first_deadline);

  private:
    descriptor epoll_;
    descriptor timer_;
    descriptor answers_;
    bool has_unsent_ = false;
    bool has_answers_ = false;
    clock::time_point alarm_ = clock::time_point::max();
};

} // namespace client
