// Finds the socket of a service, and checks that the service can be trusted.
#pragma once

#include <string>

namespace client
{

constexpr const char* socket_of_machine = "/run/ats.sock";

// Returns the path on which a service listens that this user starts without another path. It is the first of these that
// applies: $ATS_SOCKET, /run/ats.sock for root, ats.sock in $XDG_RUNTIME_DIR, /tmp/ats-UID.sock. A variable that is
// empty does not apply.
std::string own_socket_path();

// Returns the path to which a client connects without another path; see ats_default_socket() in client/ats/client.h.
std::string default_socket_path();

// Returns true if the client may believe the service at the other end of the connected socket `fd`. The service must
// run as root or as this user. Or the socket at `path` must be in a folder in which only the service's own user can
// create files and which root has created for this user.
bool is_trusted_service(int fd, const std::string& path);

} // namespace client
