// One connection to the service. It sends bytes and receives lines. Not thread-safe, except for wait().
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
        foreign, // another user's service listens; the client does not use it
        failed,  // no memory or descriptors are left
    };

    // Connects to the socket at `path` without waiting. `error` receives the reason of a failure, for people.
    attempt open(const std::string& path, std::string& error);
    void close();
    bool is_open() const { return socket_.is_open(); }
    int fd() const { return socket_.get(); }

    // Makes a thread in wait() return as if the service had closed the connection.
    void hang_up() const;

    // Appends bytes to the output, and sends as much as the socket accepts. Returns false if the service has closed the
    // connection.
    bool send(std::string_view bytes);
    bool flush();
    size_t unsent() const { return unsent_.size() - sent_bytes_; }

    // Waits for bytes until `deadline`; does not wait if it has passed. With `until_writable`, also returns when the
    // socket accepts unsent output. One thread at a time may be in this call. Meanwhile others may call everything
    // except close() and open().
    enum class outcome { input, nothing, gone };
    outcome wait(clock::time_point deadline, bool until_writable);

    // Appends the bytes of the last wait() to the input.
    void take_bytes();

    // Removes the next whole line from the input and returns it without its end. The view is valid until the next
    // take_bytes().
    bool next_line(std::string_view& line);
    bool has_endless_line() const { return input_.size() - read_bytes_ > longest_line; }

  private:
    static constexpr size_t longest_line = size_t{16} << 20;

    void limit_receiving(std::chrono::microseconds time);
    outcome receive(int flags);

    descriptor socket_;
    std::string unsent_;
    size_t sent_bytes_ = 0;
    std::string input_;
    size_t read_bytes_ = 0;    // bytes of the input that were returned as lines
    size_t scanned_bytes_ = 0; // number of input bytes that contain no line end after `read_bytes_`

    // Only the thread in wait() uses it. If no thread is in wait(), take_bytes() may use it.
    std::chrono::microseconds receive_limit_{0}; // the value that is set on the socket; 0 means none
    std::array<char, size_t{1} << 16> bytes_;
    size_t byte_count_ = 0;
};

} // namespace client
