// The Unix socket between `ats run` and its clients. In both directions, each line is one JSON text.
#pragma once

#include <memory>
#include <string>

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

    // Lets other users connect, or only this one and root.
    ats::result<> set_for_all(bool is_for_all);

    // Returns a copy of the listening descriptor. The caller closes it.
    descriptor duplicate() const;

  private:
    listening_socket(std::string path, path_lock lock, descriptor socket);

    const std::string path_;
    const path_lock lock_; // keeps two starting services from removing each other's socket
    descriptor socket_;
};

} // namespace cli
