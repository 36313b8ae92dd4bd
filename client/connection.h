// One connection to the service. It sends bytes and receives lines. The caller protects it with a mutex; only wait()
// may run without the mutex.
#pragma once

#include <array>
#include <chrono>
#include <string>
#include <string_view>

#include "client/descriptor.h"

namespace client
{

using clock = std::chrono::steady_clock;

class connection
{
  public:
    enum class attempt {
        connected,
        busy,    // the service accepts no connections at the moment: try again
        nobody,  // no service listens
        foreign, // the service belongs to another user, or this user may not use the socket
        failed,  // no memory or descriptors are left
    };

    // Connects to the socket at `path`. Does not wait. After a failure, stores the reason, for people, in `error`.
    attempt open(const std::string& path, std::string& error);

    // Closes the socket, and drops unsent output and unread input.
    void close();
    void close_socket() { socket_.reset(); } // keeps the output and the input
    bool is_open() const { return socket_.is_open(); }
    int fd() const { return socket_.get(); }

    // Shuts the connection down in both directions. A thread in wait() then returns; after the last input, wait()
    // returns `gone`.
    void hang_up() const;

    // send() appends bytes to the output. send() and flush() then send as much of the output as the socket accepts.
    // They return false if the service has closed the connection.
    bool send(std::string_view bytes);
    bool flush();
    size_t unsent_bytes() const { return output_.size() - sent_bytes_; }

    // Waits until the socket has input, at most until `deadline`, and receives it. With `until_writable`, also returns
    // when the socket accepts more output. If `deadline` has passed, does not wait. Returns `input` if it has received
    // bytes, `gone` if the service has closed the connection, otherwise `nothing`. One thread at a time may be in this
    // call. Meanwhile, other threads may make all other calls except open(), close() and take_bytes().
    enum class outcome { input, nothing, gone };
    outcome wait(clock::time_point deadline, bool until_writable);

    // Appends the bytes that wait() has received to the input.
    void take_bytes();

    // Removes the next whole line from the input, and stores it without its line end in `line`. Returns false if there
    // is no whole line. `line` is valid until the next take_bytes().
    bool next_line(std::string_view& line);

    // Call it when next_line() has found no whole line. Returns true if the input is longer than a line may be.
    bool has_endless_line() const { return input_.size() - read_bytes_ > longest_line; }

  private:
    // Bytes of the longest line, for example the status of 1000 hosts whose caches have the addresses of all others.
    static constexpr size_t longest_line = size_t{512} << 20;

    void limit_receiving(std::chrono::microseconds time);
    outcome receive(int flags);

    descriptor socket_;
    std::string output_;
    size_t sent_bytes_ = 0; // number of bytes at the start of output_ that were sent
    std::string input_;
    size_t read_bytes_ = 0;    // number of bytes at the start of input_ that were returned as lines
    size_t scanned_bytes_ = 0; // there is no line end between read_bytes_ and this offset in input_

    // The thread that is in wait() uses these three members. While no thread is in wait(), the other calls may use
    // them.
    std::chrono::microseconds receive_limit_{0}; // the socket's SO_RCVTIMEO; 0: it was not set
    std::array<char, size_t{1} << 16> bytes_;    // the received bytes
    size_t byte_count_ = 0;                      // their number
};

} // namespace client
