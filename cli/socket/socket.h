// The Unix socket between `ats run` and its clients: one JSON text a line, each way.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "console/failure.h"

namespace cli
{

// A descriptor that is closed with its owner.
class descriptor
{
  public:
    explicit descriptor(int fd = -1) : fd_(fd) {}
    ~descriptor();
    descriptor(descriptor&& other) noexcept : fd_(other.release()) {}
    descriptor& operator=(descriptor&& other) noexcept;

    int get() const { return fd_; }
    int release();

  private:
    int fd_;
};

constexpr const char* socket_of_root = "/run/ats.sock";

// $ATS_SOCKET, or /run/ats.sock for root, or ats.sock in $XDG_RUNTIME_DIR, or /tmp/ats-UID.sock. An empty variable
// counts as unset.
std::string default_socket_path();

// PATH.lock, held by the one service that may listen on PATH. Throws a failure when another holds it. It says how the
// service was started. The file goes with its owner.
class path_lock
{
  public:
    explicit path_lock(const std::string& path);
    ~path_lock();
    path_lock(const path_lock&) = delete;
    path_lock& operator=(const path_lock&) = delete;

  private:
    const std::string file_;
    descriptor held_;
};

// A socket at `path` with mode 0600. One left behind by a service that is gone is replaced; a live one, or a file that
// is no socket, is refused with a failure.
class listening_socket
{
  public:
    explicit listening_socket(const std::string& path);
    ~listening_socket(); // removes the file
    listening_socket(const listening_socket&) = delete;
    listening_socket& operator=(const listening_socket&) = delete;

    // Waits for a client, or for `stop_fd` to become readable (then nothing). Clients of other users (root excepted)
    // are turned away. An empty descriptor, after a pause: there is none left for the client that waits, until the
    // caller closes those of clients that have gone.
    std::optional<descriptor> accept_client(int stop_fd) const;

  private:
    const std::string path_;
    const path_lock lock_; // two that start at once do not each remove the other's socket
    descriptor socket_;
};

constexpr std::chrono::milliseconds no_limit(-1);

// Throws a failure when nobody listens there, when another user does, or when the listener takes no connection for
// `patience`.
descriptor connect_to(const std::string& path, std::chrono::milliseconds patience = no_limit);

// The failure of a service that gave no sign of life for that long.
console::failure no_sign_of_life(const std::string& path, std::chrono::milliseconds patience);

// One line at a time over a connected socket. Lines longer than `line_limit` end the conversation.
class line_channel
{
  public:
    static constexpr size_t line_limit = 1 << 20;

    explicit line_channel(descriptor connected) : socket_(std::move(connected)) {}

    // The next line without its end; nothing when the other side has gone.
    std::optional<std::string> read();

    // The same into `line`, giving up when no byte came for `patience`; what came before is kept for the next read.
    enum class outcome { line, gone, silent };
    outcome read(std::string& line, std::chrono::milliseconds patience);

    // False when the other side has gone.
    bool write(const std::string& line);

    // Ends a read that waits in another thread.
    void hang_up();

    int fd() const { return socket_.get(); }

  private:
    descriptor socket_;
    std::string unread_;
};

} // namespace cli
