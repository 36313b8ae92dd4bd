// The Unix socket between `ats run` and its clients. In both directions, each line is one JSON text.
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

// Holds a lock on PATH.lock. Only its holder may listen on PATH. The file describes how the service was started, and is
// removed with the lock.
class path_lock
{
  public:
    // Fails if another process holds the lock, or if the file cannot be created.
    static ats::result<path_lock> acquire(const std::string& path, const std::string& option = "--socket");

    ~path_lock();
    path_lock(path_lock&& other) noexcept = default;

  private:
    path_lock(std::string file, descriptor lock) : file_(std::move(file)), lock_(std::move(lock)) {}

    std::string file_;
    descriptor lock_;
};

// A socket in the file system. The destructor removes its file.
class listening_socket
{
  public:
    // Replaces a socket of an ended service at `path`. Fails if a service listens there, or if there is another kind of
    // file. Other users can connect if `is_for_all`. Errors name the `option` that sets the path.
    static ats::result<std::unique_ptr<listening_socket>> open(const std::string& path, bool is_for_all,
                                                               const std::string& option = "--socket");

    // Continues to use a listening socket of an earlier process at `path`. Fails if the path now belongs to another
    // socket.
    static ats::result<std::unique_ptr<listening_socket>> adopt(const std::string& path, descriptor socket);

    ~listening_socket();
    listening_socket(const listening_socket&) = delete;
    listening_socket& operator=(const listening_socket&) = delete;

    // Lets other users connect, or only this one and root. Any thread.
    ats::result<> set_for_all(bool is_for_all);

    // Returns a copy of the listening descriptor. The caller closes it.
    descriptor duplicate() const;

    const std::string& path() const { return path_; }

    // Returns false if the path no longer names this socket, for example because the file was removed.
    bool is_in_place() const;

    // Creates the file again and listens there. Copies of the earlier descriptor no longer receive clients. Fails if
    // the path names another file, or if its folder does not exist. Any thread.
    ats::result<> restore();

  private:
    // Identifies a file while it exists.
    struct file_identity {
        dev_t device;
        ino_t number;
        bool operator==(const file_identity&) const = default;
    };
    static std::optional<file_identity> identity_of(const std::string& path);

    ats::result<> give_permissions();
    listening_socket(std::string path, path_lock lock, descriptor socket);

    const std::string path_;
    const path_lock lock_;     // keeps two starting services from removing each other's socket
    mutable std::mutex mutex_; // guards the following members
    descriptor socket_;
    std::optional<file_identity> file_;
    bool is_for_all_ = false;
};

} // namespace cli
