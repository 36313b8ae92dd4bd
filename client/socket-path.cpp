#include "client/socket-path.h"

#include <cstdlib>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace client
{

namespace
{

// Returns the value of an environment variable, or null if the variable is unset or empty.
const char* variable(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

std::string socket_in_tmp()
{
    return "/tmp/ats-" + std::to_string(geteuid()) + ".sock";
}

bool exists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

// Returns true if the file is a socket of this user. Every user may put a file of any name into /tmp, to keep others
// from their service.
bool is_own_socket(const std::string& path)
{
    struct stat status {
    };
    return lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode) && status.st_uid == geteuid();
}

std::string folder_of(const std::string& path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool is_writable_only_by(uid_t user, const std::string& folder)
{
    struct stat status {
    };
    return stat(folder.c_str(), &status) == 0 && status.st_uid == user && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Returns true if only root can write to the folder. Also returns true if only `user` can write to it, and only root
// can write to its parent folder. In this case root has created the folder for the user, for example /run/ats for the
// service.
bool is_folder_of_service(uid_t user, const std::string& folder)
{
    return is_writable_only_by(0, folder) ||
           (is_writable_only_by(user, folder) && is_writable_only_by(0, folder + "/.."));
}

} // namespace

std::string own_socket_path()
{
    if (const char* path = variable("ATS_SOCKET")) return path;
    if (geteuid() == 0) return socket_of_machine;
    if (const char* folder = variable("XDG_RUNTIME_DIR")) return std::string(folder) + "/ats.sock";
    return socket_in_tmp();
}

std::string default_socket_path()
{
    const std::string own = own_socket_path(), in_tmp = socket_in_tmp();
    if (variable("ATS_SOCKET") || (own != in_tmp && exists(own))) return own;
    if (is_own_socket(in_tmp)) return in_tmp;
    return exists(socket_of_machine) ? socket_of_machine : own;
}

bool is_trusted_service(int fd, const std::string& path)
{
    ucred peer{};
    socklen_t length = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return false;
    return peer.uid == 0 || peer.uid == geteuid() || is_folder_of_service(peer.uid, folder_of(path));
}

} // namespace client
