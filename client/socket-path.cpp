#include "client/socket-path.h"

#include <cstdlib>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace client
{

namespace
{

constexpr const char* socket_of_machine = "/run/ats.sock";

// The variable's value; null when it is unset or empty.
const char* variable(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

bool exists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

std::string folder_of(const std::string& path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool only_root_writes_to(const std::string& folder)
{
    struct stat status {
    };
    return stat(folder.c_str(), &status) == 0 && status.st_uid == 0 && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

} // namespace

std::string default_socket_path()
{
    if (const char* path = variable("ATS_SOCKET")) return path;
    if (geteuid() == 0) return socket_of_machine;
    const std::string in_tmp = "/tmp/ats-" + std::to_string(geteuid()) + ".sock";
    const char* runtime_folder = variable("XDG_RUNTIME_DIR");
    const std::string own = runtime_folder ? std::string(runtime_folder) + "/ats.sock" : in_tmp;
    if (exists(own)) return own;
    if (exists(in_tmp)) return in_tmp;
    return exists(socket_of_machine) ? socket_of_machine : own;
}

bool is_trusted_service(int fd, const std::string& path)
{
    ucred peer{};
    socklen_t length = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return false;
    return peer.uid == 0 || peer.uid == geteuid() || only_root_writes_to(folder_of(path));
}

} // namespace client
