// One connection to the service: bytes out, lines in. Not thread-safe, except for wait().
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
        busy,    // the service takes no connections at the moment: try again
        nobody,  // no service listens
        foreign, // another user's service listens, which we do not ask
        failed,  // memory or descriptors are used up
    };

    // Connects to the socket at `path` without waiting. `error`: why not, for people.
    attempt open(const std::string& path, std::string& error);
    void close();
    bool is_open() const { return socket_.is_open(); }
    int fd() const { return socket_.get(); }

    // Makes a thread that is in wait() return as if the service had gone.
    void hang_up() const;

    // Adds to what is to be sent, and sends what the socket takes. False: the service has gone.
    bool send(std::string_view bytes);
    bool flush();
    size_t unsent() const { return unsent_.size() - sent_; }

    // Waits for bytes until `deadline`, or not at all if it has passed; with `until_writable`, also until the socket
    // takes what is unsent. One thread at a time may be here, while others call everything but close() and open().
    enum class outcome { input, nothing, gone };
    outcome wait(clock::time_point deadline, bool until_writable);

    // Adds the bytes that the last wait() brought to the input.
    void take_bytes();

    // Takes the next whole line, without its end, out of the input. The view is valid until the next take_bytes().
    bool next_line(std::string_view& line);
    bool has_endless_line() const { return input_.size() - read_ > longest_line; }

  private:
    static constexpr size_t longest_line = size_t{16} << 20;

    void limit_receiving(std::chrono::microseconds time);
    outcome receive(int flags);

    descriptor socket_;
    std::string unsent_;
    size_t sent_ = 0;
    std::string input_;
    size_t read_ = 0;    // bytes of the input that were handed out
    size_t scanned_ = 0; // bytes of the input that hold no line end after `read_`

    // Of the thread in wait(), and of take_bytes() when there is none.
    std::chrono::microseconds receive_limit_{0}; // as set on the socket; 0: none
    std::array<char, size_t{1} << 16> bytes_;
    size_t byte_count_ = 0;
};

} // namespace client
