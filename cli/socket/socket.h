// The Unix socket between `ats run` and its clients: one JSON text a line, each way.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "host/result.h"

namespace cli
{

// Owns a file descriptor and closes it; -1 is none.
class descriptor
{
  public:
    explicit descriptor(int fd = -1) : fd_(fd) {}
    ~descriptor();
    descriptor(descriptor&& other) noexcept : fd_(other.release()) {}
    descriptor& operator=(descriptor&& other) noexcept;

    int get() const { return fd_; }
    int release(); // the caller closes it

  private:
    int fd_;
};

constexpr const char* socket_of_root = "/run/ats.sock";

// $ATS_SOCKET, or /run/ats.sock for root, or ats.sock in $XDG_RUNTIME_DIR, or /tmp/ats-UID.sock. An empty variable
// counts as unset.
std::string default_socket_path();

// Holds PATH.lock locked. Only its holder may listen on PATH. The file says how the service was started, and is removed
// with the lock.
class path_lock
{
  public:
    // Fails if another process holds the lock, or if the file cannot be made.
    static ats::result<path_lock> acquire(const std::string& path);

    ~path_lock();
    path_lock(path_lock&& other) noexcept = default;

  private:
    path_lock(std::string file, descriptor lock) : file_(std::move(file)), lock_(std::move(lock)) {}

    std::string file_;
    descriptor lock_;
};

// A socket in the file system with mode 0600. The file is removed with it.
class listening_socket
{
  public:
    // Replaces a socket that an ended service left behind at `path`. Fails if a service listens there, or if there is
    // another kind of file.
    static ats::result<std::unique_ptr<listening_socket>> open(const std::string& path);

    ~listening_socket();
    listening_socket(const listening_socket&) = delete;
    listening_socket& operator=(const listening_socket&) = delete;

    // Waits for a client, or for `stop_fd` to become readable; then it returns nothing. Refuses clients of other users,
    // except root's. Returns an empty descriptor, after a pause, while a client waits but the process has no descriptor
    // left: the caller should then close those of clients that have gone.
    std::optional<descriptor> accept_client(int stop_fd) const;

  private:
    listening_socket(std::string path, path_lock lock, descriptor socket);

    const std::string path_;
    const path_lock lock_; // keeps two starting services from removing each other's socket
    descriptor socket_;
};

constexpr std::chrono::milliseconds no_limit(-1);

// Unreachable if nobody listens there, if the listener is another user's, or if it accepts no connection for
// `patience`.
ats::result<descriptor> connect_to(const std::string& path, std::chrono::milliseconds patience = no_limit);

// The error about a service that gave no sign of life for that long.
ats::error no_sign_of_life(const std::string& path, std::chrono::milliseconds patience);

// Sends and receives lines over a connected socket. A line longer than `line_limit` ends the connection.
class line_channel
{
  public:
    static constexpr size_t line_limit = 1 << 20;

    explicit line_channel(descriptor socket) : socket_(std::move(socket)) {}

    // Waits for the next line and returns it without its end. Returns nothing if the other side has closed.
    std::optional<std::string> read();

    // The same into `line`, but returns `silent` if no byte came for `patience`. The next read continues with the bytes
    // that came before.
    enum class arrival { line, gone, silent };
    arrival read(std::string& line, std::chrono::milliseconds patience);

    // False if the other side has closed.
    bool write(const std::string& line);

    // Ends a read that waits in another thread.
    void hang_up();

    int fd() const { return socket_.get(); }

  private:
    descriptor socket_;
    std::string unread_;
};

} // namespace cli
