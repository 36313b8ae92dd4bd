// Finds the socket of a service, and checks that the service can be trusted.
#pragma once

#include <string>

namespace client
{

constexpr const char* socket_of_machine = "/run/ats.sock";

// Returns the path on which a service of this user (`ats run`) listens by default. It is the first of these that
// applies: $ATS_SOCKET, /run/ats.sock for root, ats.sock in $XDG_RUNTIME_DIR, /tmp/ats-UID.sock. A variable that is
// unset or empty does not apply.
std::string own_socket_path();

// Returns the path to which a client connects by default; see ats_default_socket() in client/ats/client.h.
std::string default_socket_path();

// Returns true if the client may trust the service at the other end of `fd`, a socket that is connected to `path`. This
// is so if the service runs as root or as this user. It is also so if only root can create files in the folder of
// `path`, or if root has created this folder for the user of the service.
bool is_trusted_service(int fd, const std::string& path);

} // namespace client
