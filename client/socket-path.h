// Where a service listens, and whether the one that listens there can be believed.
#pragma once

#include <string>

namespace client
{

// The default path of the socket, see ats_default_socket().
std::string default_socket_path();

// True if the process at the other end of the connected socket `fd` may answer for this machine: it runs as root or as
// this user, or only root can have placed a socket at `path`.
bool is_trusted_service(int fd, const std::string& path);

} // namespace client
