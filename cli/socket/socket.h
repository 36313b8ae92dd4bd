// The Unix sockets on which the service (`ats run`) listens, and the locks on their paths. A lock keeps two services
// from listening on one path.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>

#include "client/descriptor.h"
#include "host/result.h"

namespace cli
{

using client::descriptor;

// Holds a lock on the file PATH.lock. Only the process that holds the lock may listen on PATH. The file contains a
// description of the process (service-origin.h). The destructor removes the file and releases the lock.
class path_lock
{
  public:
    // Creates and locks the file. Fails if another process holds the lock, or if the file cannot be created or written.
    // Error texts name `option`, the command-line option that sets the path.
    static ats::result<path_lock> acquire(const std::string& path, const std::string& option = "--socket");

    ~path_lock();
    path_lock(path_lock&& other) noexcept = default;

  private:
    path_lock(std::string file, descriptor lock) : file_(std::move(file)), lock_(std::move(lock)) {}

    std::string file_;
    descriptor lock_;
};

// A socket file without a process that listens (stale) is what a killed service leaves.
enum class socket_state { live, stale };

// Tells if a process listens on the socket at `path`. Follows symbolic links. The test is a connection, which is closed
// at once; this function never waits. Fails if there is no such file, or if this user may not connect to it. A file
// that is no socket counts as stale.
ats::result<socket_state> state_of_socket(const std::string& path);

// A listening Unix socket with its file. The destructor removes the file.
class listening_socket
{
  public:
    // Creates a socket at `path` and listens. Replaces the socket file of a service that has ended. Fails if a service
    // listens there, or if the file at `path` is not a socket. If `is_for_all`, other users can connect. If another
    // path can help, the error text names `option`, the command-line option that sets the path.
    static ats::result<std::unique_ptr<listening_socket>> open(const std::string& path, bool is_for_all,
                                                               const std::string& option = "--socket");

    // Continues to use `socket`, the listening socket of an earlier process. Fails if the socket is not at `path`, or
    // if another process holds the lock of the path.
    static ats::result<std::unique_ptr<listening_socket>> adopt(const std::string& path, descriptor socket);

    ~listening_socket();
    listening_socket(const listening_socket&) = delete;
    listening_socket& operator=(const listening_socket&) = delete;

    // If `is_for_all`, lets other users connect; otherwise, only this user and root can connect. Any thread.
    ats::result<> set_for_all(bool is_for_all);

    // Returns a copy of the listening descriptor. The caller owns it. Any thread.
    descriptor duplicate() const;

    const std::string& path() const { return path_; }

    // Returns false if the file at the path is not this socket any more, for example because somebody has removed it.
    // Any thread.
    bool is_in_place() const;

    // Creates a new socket with its file at the path, and listens. New clients reach only the new socket: copies of the
    // earlier descriptor are useless then. Fails if there is a file at the path, or if the folder of the path does not
    // exist. Any thread.
    ats::result<> restore();

  private:
    // Identifies a file as long as the file exists.
    struct file_identity {
        dev_t device;
        ino_t number;
        bool operator==(const file_identity&) const = default;
    };
    static std::optional<file_identity> identity_of(const std::string& path);

    ats::result<> give_permissions();
    listening_socket(std::string path, path_lock lock, descriptor socket);

    const std::string path_;
    const path_lock lock_;     // while it is held, no other service removes this socket
    mutable std::mutex mutex_; // guards the following members
    descriptor socket_;
    std::optional<file_identity> file_; // the file of socket_
    bool is_for_all_ = false;
};

} // namespace cli
