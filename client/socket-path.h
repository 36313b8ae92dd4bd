// Finds the socket of a service, and checks that the service can be trusted.
#pragma once

#include <string>

namespace client
{

constexpr const char* socket_of_machine = "/run/ats.sock";

// The default path on which a service of this user listens: $ATS_SOCKET, or /run/ats.sock for root, or ats.sock in
// $XDG_RUNTIME_DIR, or /tmp/ats-UID.sock. An empty variable counts as unset.
std::string own_socket_path();

// The default path for clients; see ats_default_socket().
std::string default_socket_path();

// Returns true if the process at the other end of the connected socket `fd` may answer for this machine. It must run as
// root or as this user, or only root can have put a socket at `path`.
bool is_trusted_service(int fd, const std::string& path);

} // namespace client
